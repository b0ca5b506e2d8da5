#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "tools/kelmctl/export/ExportFeed.h"
#include "tools/kelmctl/export/HttpAnswer.h"
#include "tools/kelmctl/export/ListenAddress.h"

namespace kelm::ctl {

// What is served; called on any of the server's threads, several at a time.
struct ExportRoutes {
    std::map<std::string, std::function<HttpAnswer()>> answers;  // by path
    // `/events`: a server-sent event for each snapshot; empty: there is no such path.
    std::function<std::string(const ExportSnapshot&)> event;
};

// Answers GET and HEAD over HTTP, one request a connection, and streams events. Bounded whatever
// its peers do: 16 connections, 8 of them streams; more are refused with 503. A request of more
// than 16 KB is refused; one that takes more than five seconds to come, and a reader who takes as
// long to receive an answer or an event, are hung up on. On a loopback address only requests to a
// loopback name are answered: a page of another site could have its own name lead here.
//
// Threads: one that accepts, 16 that answer; any may make and destroy it.
// Owns: its threads and sockets. Locks: none but those of what it uses.
class ExportServer {
 public:
    // Serves from now on; throws with the reason, as the port that is taken. The feed is borrowed
    // for the object's life.
    ExportServer(const ListenAddress& address, ExportFeed& feed, ExportRoutes routes);
    ~ExportServer();  // closes the feed, and ends what is under way
    ExportServer(const ExportServer&) = delete;
    ExportServer& operator=(const ExportServer&) = delete;

    // The one that the system has chosen where 0 was given.
    uint16_t port() const;

 private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kelm::ctl
