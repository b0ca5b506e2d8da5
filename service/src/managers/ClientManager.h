#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "managers/ClientDepartures.h"
#include "records/ClientDirectory.h"
#include "reporting/PrintInfoListener.h"
#include "utils/Mutex.h"
#include "utils/SerialPool.h"
#include "utils/Singleton.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

class ClientConnection;
class Request;
struct InfoPackage;
struct KelmStatus;

// The registry of client processes. A client departs by request or by hanging up; either way its
// record is destroyed only when its unregister response is out and its last task has ended, in
// either order, and then its other answers are out too.
//
// A record is running, then departing (known to m_departures), then destroyed.
// Several records may share one connection, which closes with the last of them.
//
// Threads: requests and notices run on the pool; the other operations on any thread.
// Owns: the records. Locks: m_mutex, then a client's own, then those of the connection layer.
class ClientManager : public Singleton<ClientManager>,
                      public ClientDirectory,
                      public PrintInfoListener {
 public:
    ClientManager();
    ~ClientManager() override;

    // Called on the thread that reads the socket, while the connection is open.
    void enqueueRegisterClient(Request request);
    void enqueueUnregisterClient(Request request);
    // No task of the client is left.
    void enqueueNotifyAllTasksDone(uint64_t clientId);
    // Lets a request keep the record of its client until it is answered: for those that the last
    // task of the client does not wait for, and that are answered without delay. Called on the
    // thread that reads the socket, and so before a later request to unregister is handled.
    void keepUntilAnswered(Request& request) EXCLUDES(m_mutex);
    void enqueueNotifyAnswered(uint64_t clientId) override;
    // Its unregister response is on the socket, or will never be.
    void enqueueNotifyUnregRspSent(uint64_t clientId);
    // Every answer that was ready when the two notices above had come is on the socket.
    void enqueueNotifyAnswersSent(uint64_t clientId);

    // The peer of the connection has hung up: every client that registered over it departs, without
    // an answer, and a writer that waits for the peer ends at once.
    void closeClient(int socket) EXCLUDES(m_mutex);
    // The same for every client; no client can register any more.
    void removeAllClients() EXCLUDES(m_mutex);
    // The service stops, after removeAllClients(): waits until the last record is destroyed and the
    // pool has nothing to do; false when the time is up first. The end of a later record calls no
    // other manager.
    bool finish(std::chrono::milliseconds time) EXCLUDES(m_mutex);

    bool verifyClient(uint64_t clientId) override EXCLUDES(m_mutex);
    bool verifyRequester(const Request& request) override EXCLUDES(m_mutex);
    // The record behind that answer, null in place of false; it lives as getClientById() says.
    KelmClient* findRequester(const Request& request) EXCLUDES(m_mutex);
    // Whether the client that the request names was registered by another user than the request's
    // sender, to whom it is unknown.
    bool isOfAnotherUser(const Request& request) EXCLUDES(m_mutex);
    KelmClient* getClientById(uint64_t clientId) override EXCLUDES(m_mutex);
    std::optional<std::string> getClientName(uint64_t clientId) override EXCLUDES(m_mutex);
    // -1 for an unknown client.
    int getSocketByClientId(uint64_t clientId) EXCLUDES(m_mutex);
    // One that registered on the connection of that number, 0 if none did.
    uint64_t getClientIdBySocket(int socket) EXCLUDES(m_mutex);
    // Null for an unknown client. While it is held, its number is given to no other connection.
    std::shared_ptr<ClientConnection> getConnectionByClientId(uint64_t clientId) EXCLUDES(m_mutex);
    // Whether there are clients.
    bool isActive() EXCLUDES(m_mutex);

    // Name and rate of every client, in id order; then reports its part.
    void enqueueQueryClientStatus(const std::shared_ptr<KelmStatus>& status);
    // The same for the package, which lives until the report. Never blocks.
    void enqueueUpdateInfoPackage(InfoPackage* package);

    void onPrintInfo() override EXCLUDES(m_mutex);

 private:
    using ConnectionPtr = std::shared_ptr<IPC::ConnectionBase>;

    void registerClient(Request request, const ConnectionPtr& connection) REQUIRES(m_onPool)
        EXCLUDES(m_mutex);
    // The new id. 0 if the connection is closed, has too many clients, or the service stops; the
    // caller closes it then.
    uint64_t addClient(const char* name, uint16_t major, uint16_t minor,
                       const ConnectionPtr& connection) EXCLUDES(m_mutex);
    void unregisterClient(Request request) REQUIRES(m_onPool) EXCLUDES(m_mutex);
    void notifyClientInDestroy(uint64_t clientId) EXCLUDES(m_mutex);

    KelmClient* getClientByIdUnsafe(uint64_t clientId) REQUIRES(m_mutex);
    // The one that the request names, null also if its sender is another user than the client's.
    KelmClient* getClientForUnsafe(const Request& request) REQUIRES(m_mutex);
    std::shared_ptr<ClientConnection> shareConnectionUnsafe(const ConnectionPtr& connection)
        REQUIRES(m_mutex);
    // `unregRspSent`: no response is owed, as after a hang-up. False for a client that departs
    // already.
    bool startDepartureUnsafe(KelmClient& client, bool unregRspSent) REQUIRES(m_mutex);
    // Every client of the connection departs; returns those that did not yet.
    std::vector<uint64_t> dropConnectionUnsafe(const std::shared_ptr<ClientConnection>& connection)
        REQUIRES(m_mutex);
    // The departure waits for nothing any more: the record ends when its answers are written.
    void endClientUnsafe(uint64_t clientId) REQUIRES(m_mutex);
    void cleanClientUnsafe(uint64_t clientId) REQUIRES(m_mutex);
    void removeSocketEntryUnsafe(const KelmClient& client) REQUIRES(m_mutex);

    const bool m_printClientFps;
    const bool m_snapshot;
    const StepTrace m_trace;

    Mutex m_mutex;
    CondVar m_zeroClientCond;
    bool m_closed GUARDED_BY(m_mutex) = false;    // no client can register any more
    bool m_finished GUARDED_BY(m_mutex) = false;  // the end of a record calls no other manager
    uint64_t m_nextClientId GUARDED_BY(m_mutex) = 1;
    std::map<uint64_t, std::unique_ptr<KelmClient>> m_idClientMap GUARDED_BY(m_mutex);
    std::map<int, KelmClient*> m_socketClientMap GUARDED_BY(m_mutex);  // the latest of each socket
    ClientDepartures m_departures GUARDED_BY(m_mutex);

    ThreadRole m_onPool;
    SerialPool m_pool;  // last: its jobs use all of the above
};

}  // namespace kelm
