#include "tools/gateway/ModelKeeper.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "tools/gateway/Failure.h"

namespace kelm::gateway {

ModelKeeper::ModelKeeper(ModelFolder folder, Engine& engine, Chores& chores,
                         ModelRegistry& registry, Say say)
    : m_folder(std::move(folder)),
      m_engine(engine),
      m_chores(chores),
      m_registry(registry),
      m_say(std::move(say)),
      m_end(::eventfd(0, EFD_CLOEXEC)),
      m_thread([this] { run(); }) {}

ModelKeeper::~ModelKeeper() {
    (void)::eventfd_write(m_end.get(), 1);
    m_thread.join();
}

void ModelKeeper::run() {
    do {
        m_folder.takeChanges();  // first: what changes from now on is met by the next round
        try {
            follow();
        } catch (const std::exception& error) {
            m_say(std::string("the folder of models cannot be read: ") + error.what());
        }
    } while (waitForChange());
}

bool ModelKeeper::waitForChange() {
    constexpr int kTrialMs = 2000;
    constexpr int kFirstTrialMs = 100;  // until the service is there
    pollfd fds[] = {{m_end.get(), POLLIN, 0}, {m_folder.fd(), POLLIN, 0}};
    (void)::poll(fds, 2, !mayTryAgain() ? -1 : m_hasTriedAll ? kTrialMs : kFirstTrialMs);
    return fds[0].revents == 0;
}

void ModelKeeper::follow() {
    const auto texts = m_folder.read();
    for (auto known = m_known.begin(); known != m_known.end();) {
        if (texts.contains(known->first)) {
            ++known;
            continue;
        }
        m_registry.remove(known->first);
        m_say("model '" + known->first + "' was removed");
        known = m_known.erase(known);
    }
    const bool canTry = m_engine.whyNot().empty();
    for (const auto& [name, text] : texts) {
        const auto [known, isNew] = m_known.try_emplace(name);
        if (!isNew && known->second.text == text && !known->second.isAgain) continue;
        if (known->second.text != text) known->second = {text, {}, false};
        load(name, known->second);
    }
    // What has been loaded tells more than what the engine knew before.
    if (canTry || !mayTryAgain()) m_hasTriedAll = true;
}

bool ModelKeeper::mayTryAgain() const {
    return std::ranges::any_of(m_known, [](const auto& each) { return each.second.isAgain; });
}

void ModelKeeper::load(const std::string& name, Known& known) {
    std::string reason;
    known.isAgain = false;
    try {
        const auto description = ModelDescription::parse(name, known.text);
        known.isAgain = true;  // from here on it depends on the service
        const auto model =
            Model::load(m_engine, m_chores, description, m_folder.resolve(description.graph));
        known.isAgain = false;
        m_registry.put(model);
        m_say("model '" + name + "' version '" + description.version + "' serves");
    } catch (const std::exception& error) {
        reason = error.what();
        const auto* failure = dynamic_cast<const Failure*>(&error);
        const bool isLater = failure != nullptr && failure->cause() == Cause::kUnavailable;
        const char* const state = isLater ? "' is tried again: " : "' was refused: ";
        if (reason != known.reason) m_say("model '" + name + state + reason);
    }
    known.reason = reason;
}

}  // namespace kelm::gateway
