#include "bench/EchoServer.h"

#include <echo.grpc.pb.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/server_context.h>
#include <unistd.h>

#include <memory>
#include <thread>
#include <vector>

#include "bench/CpuPlacement.h"
#include "bench/EchoStep.h"

namespace kelm::bench {

namespace {

using grpc::ServerCompletionQueue;
using Service = echo::Echo::AsyncService;

constexpr int kWaitingCalls = 64;  // unary calls that a queue takes at once

// One call, from its acceptance to its answer. Owns itself.
class UnaryCall final : public EchoStep {
 public:
    static void await(Service& service, ServerCompletionQueue& queue, size_t answerBytes) {
        auto* const call = new UnaryCall(service, queue, answerBytes);
        service.RequestUnary(&call->m_context, &call->m_request, &call->m_responder, &queue, &queue,
                             call);
    }

    void next(bool ok) override {
        if (!ok || m_answered) {
            delete this;
            return;
        }
        await(m_service, m_queue, m_answerBytes);
        m_answered = true;
        m_answer.set_payload(std::string(m_answerBytes, '\0'));
        m_responder.Finish(m_answer, grpc::Status::OK, this);
    }

 private:
    UnaryCall(Service& service, ServerCompletionQueue& queue, size_t answerBytes)
        : m_service(service), m_queue(queue), m_answerBytes(answerBytes), m_responder(&m_context) {}
    ~UnaryCall() = default;

    Service& m_service;
    ServerCompletionQueue& m_queue;
    const size_t m_answerBytes;
    grpc::ServerContext m_context;
    echo::Request m_request;
    echo::Answer m_answer;
    grpc::ServerAsyncResponseWriter<echo::Answer> m_responder;
    bool m_answered = false;
};

// One client's stream: reads a request and answers it, in turn, until the client leaves. Owns
// itself.
class StreamCall final : public EchoStep {
 public:
    static void await(Service& service, ServerCompletionQueue& queue) {
        auto* const call = new StreamCall(service, queue);
        service.RequestStream(&call->m_context, &call->m_stream, &queue, &queue, call);
    }

    void next(bool ok) override {
        if (!ok) {
            delete this;
        } else if (!m_accepted) {
            m_accepted = true;
            await(m_service, m_queue);
            m_stream.Read(&m_request, this);
        } else if (m_reading) {
            m_reading = false;
            m_stream.Write(m_answer, this);
        } else {
            m_reading = true;
            m_stream.Read(&m_request, this);
        }
    }

 private:
    StreamCall(Service& service, ServerCompletionQueue& queue)
        : m_service(service), m_queue(queue), m_stream(&m_context) {
        m_answer.set_payload(std::string(kEchoAnswerBytes, '\0'));
    }
    ~StreamCall() = default;

    Service& m_service;
    ServerCompletionQueue& m_queue;
    grpc::ServerContext m_context;
    echo::Request m_request;
    echo::Answer m_answer;
    grpc::ServerAsyncReaderWriter<echo::Answer, echo::Request> m_stream;
    bool m_accepted = false;
    bool m_reading = true;
};

void serveQueue(Service& service, ServerCompletionQueue& queue, size_t answerBytes) {
    for (int i = 0; i < kWaitingCalls; ++i) UnaryCall::await(service, queue, answerBytes);
    StreamCall::await(service, queue);
    while (runNextStep(queue)) {
    }
}

}  // namespace

void serveEcho(const std::string& address, size_t answerBytes, const std::function<void()>& ready) {
    Service service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address, grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    std::vector<std::unique_ptr<ServerCompletionQueue>> queues;
    for (int i = 0; i < CpuPlacement::available(); ++i) {
        queues.push_back(builder.AddCompletionQueue());
    }
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (server == nullptr) ::_exit(1);
    std::vector<std::thread> threads;
    for (const auto& queue : queues) {
        threads.emplace_back([&, raw = queue.get()] { serveQueue(service, *raw, answerBytes); });
    }
    ready();
    for (std::thread& thread : threads) thread.join();
    ::_exit(0);
}

}  // namespace kelm::bench
