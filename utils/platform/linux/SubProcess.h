#pragma once

#include <memory>
#include <string>
#include <vector>

namespace kelm {

// A child process and, if asked for, a thread that starts it anew whenever it ends. A child that
// was started anew knows it by the argument "--recover".
//
// Threads: any; the supervising thread is detached and shares the state, not this object.
// Owns: the child, which the destructor asks to end.
// Locks: the state's mutex, held while a child is started but not while one is waited for.
class SubProcess {
 public:
    // The first argument is the program's path.
    explicit SubProcess(std::vector<std::string> args);
    ~SubProcess();
    SubProcess(const SubProcess&) = delete;
    SubProcess& operator=(const SubProcess&) = delete;

    // Starts the child. False, logged, without arguments or if there is no process to be had; a
    // program that cannot be run shows as a child that ends with status 1.
    bool execute(bool flag);
    // Has no effect; kept for callers that name a program.
    bool execute(const std::string&, bool) { return true; }

    // Whether there is a child; one that has ended and was not waited for still counts.
    bool poll();

    // Turns the supervising on, which needs a child, or off. False if it could not be turned on.
    bool enableDaemon(bool on);

    // Asks the child to end.
    void terminate();

    // Lets the child live on after this object, without supervising.
    void abandon();

 private:
    struct State;

    static void mointorRoutine(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> m_state;
};

}  // namespace kelm
