#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelm {

class KelmClient;
class Request;

// Port: the registry of clients. Any thread; each call takes the registry's lock for a moment.
class ClientDirectory {
 public:
    // False for id 0, an unknown client and one that departs.
    virtual bool verifyClient(uint64_t clientId) = 0;
    // The same for the client that the request names; also false if the client was registered by
    // another user than the request's sender.
    virtual bool verifyRequester(const Request& request) = 0;
    // Null for an unknown client. The record lives until the client's last task has ended, so the
    // caller must hold a task of that client, or be the one that confirms its departure.
    virtual KelmClient* getClientById(uint64_t clientId) = 0;
    // The client's name, or nothing for an unknown client.
    virtual std::optional<std::string> getClientName(uint64_t clientId) = 0;
    // A request that kept the client's record is answered. Only queues.
    virtual void enqueueNotifyAnswered(uint64_t clientId) = 0;

 protected:
    ~ClientDirectory() = default;
};

}  // namespace kelm
