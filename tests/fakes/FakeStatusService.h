#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "protocol/src/InfoPackage.h"
#include "protocol/src/KelmMessage.h"
#include "utils/Mutex.h"
#include "utils/UniqueFd.h"

namespace kelm {

// A socket that listens; `backlog` peers may wait on it.
inline UniqueFd listenOn(const std::string& path, int backlog = 5) {
    UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ::unlink(path.c_str());
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(::bind(listener.get(), name, sizeof(address)), 0);
    EXPECT_EQ(::listen(listener.get(), backlog), 0);
    return listener;
}

// Listens where a service would and knows two requests: it answers every registration with 0 and
// every status query with the record that it was given. One peer at a time.
class FakeStatusService {
 public:
    explicit FakeStatusService(const std::string& path)
        : m_listener(listenOn(path)), m_thread([this] { serve(); }) {}
    ~FakeStatusService() {
        m_stop = true;
        ::shutdown(m_listener.get(), SHUT_RDWR);
        hangUp();
        m_thread.join();
    }

    void setAnswer(const KelmMsgRspQueryStatus& answer) {
        MutexLock lock(m_mutex);
        m_answer = answer;
    }
    void hangUp() {
        MutexLock lock(m_mutex);
        ::shutdown(m_peer.get(), SHUT_RDWR);
    }

    std::atomic<uint64_t> queryType{0};  // of the last query

 private:
    void serve() {
        while (!m_stop) {
            const int fd = ::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
            {
                MutexLock lock(m_mutex);
                m_peer.reset(fd);
                if (m_stop) break;
            }
            while (answerNext(fd)) {
            }
        }
    }

    bool answerNext(int fd) {
        union {
            KelmMsgReq head;
            KelmMsgReqRegister registration;
            KelmMsgReqQueryStatus query;
        } request{};
        // The head tells the size of the whole.
        const ssize_t head = ::recv(fd, &request, sizeof(KelmMsgReq), MSG_PEEK | MSG_WAITALL);
        if (head != sizeof(KelmMsgReq)) return false;
        const size_t size = std::min<size_t>(request.head.base.size, sizeof(request));
        if (::recv(fd, &request, size, MSG_WAITALL) != static_cast<ssize_t>(size)) return false;
        if (request.head.base.type != KELM_MESSAGE_QUERY_STATUS_REQ) {
            return answer(fd, request.head, KELM_MESSAGE_REGISTER_RSP, KelmMsgRspRegister{});
        }
        queryType = request.query.queryType;
        MutexLock lock(m_mutex);
        return answer(fd, request.head, KELM_MESSAGE_QUERY_STATUS_RSP, m_answer);
    }

    template <class Record>
    static bool answer(int fd, const KelmMsgReq& request, KelmMsgType type, Record record) {
        auto& head = reinterpret_cast<KelmMsgRsp&>(record);
        head.base.type = type;
        head.base.size = sizeof(record);
        head.reqSeqNo = request.reqSeqNo;
        return ::send(fd, &record, sizeof(record), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(sizeof(record));
    }

    std::atomic<bool> m_stop{false};
    Mutex m_mutex;
    KelmMsgRspQueryStatus m_answer GUARDED_BY(m_mutex){};
    UniqueFd m_peer GUARDED_BY(m_mutex);
    const UniqueFd m_listener;
    std::thread m_thread;
};

}  // namespace kelm
