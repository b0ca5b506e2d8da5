#pragma once

#include <cstdint>
#include <string>

class ThreadUtils {
 public:
    static int getProcessId();
    // The kernel's id of the calling thread, or the one that it has borrowed.
    static int getThreadId();
    // While it lives, the calling thread passes for another one.
    class BorrowedId {
     public:
        explicit BorrowedId(int threadId);
        ~BorrowedId();
        BorrowedId(const BorrowedId&) = delete;
        BorrowedId& operator=(const BorrowedId&) = delete;

     private:
        const int m_before;
    };
    // Names the calling thread; the kernel keeps 15 characters.
    static void setName(const std::string& name);
    static std::string getName();
    // A null buffer, or one below 16 bytes, is left alone.
    static void getName(char* buffer, unsigned long size);
    // The processor's time stamp counter.
    static uint64_t getRdtsc();
    static std::string getHostname();
    // Adds a line for the calling thread to "thread.info" in the current directory, which the first
    // call of the process starts anew. Does nothing if that is a link, a pipe, another user's file
    // or one with a second name.
    static void saveThreadInfo(const std::string& name);
};
