#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <memory>

#include "bench/EchoStep.h"
#include "bench/gateway/Exchange.h"

namespace kelm::bench {

namespace {

using Clock = std::chrono::steady_clock;

struct Run {
    const Exchange& exchange;
    grpc::GenericStub& stub;
    grpc::CompletionQueue& queue;
    Lane& lane;
    const grpc::ByteBuffer request;
    const Clock::time_point end;
    int inFlight = 0;
};

// One call after the other.
class Caller final : public EchoStep {
 public:
    explicit Caller(Run& run) : m_run(run) {}

    void start() {
        m_context = std::make_unique<grpc::ClientContext>();
        m_started = Clock::now();
        m_call = m_run.stub.PrepareUnaryCall(m_context.get(), m_run.exchange.target, m_run.request,
                                             &m_run.queue);
        m_call->StartCall();
        m_call->Finish(&m_answer, &m_status, this);
        ++m_run.inFlight;
    }
    void next(bool ok) override {
        if (!ok || !m_status.ok() || m_answer.Length() < m_run.exchange.answerBytes) {
            std::fprintf(stderr, "gRPC: %s\n", m_status.error_message().c_str());
            ::_exit(1);
        }
        m_run.lane.add(Clock::now() - m_started);
        --m_run.inFlight;
        if (Clock::now() < m_run.end) start();
    }

 private:
    Run& m_run;
    grpc::ByteBuffer m_answer;
    grpc::Status m_status;
    std::unique_ptr<grpc::ClientContext> m_context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<grpc::ByteBuffer>> m_call;
    Clock::time_point m_started;
};

}  // namespace

void driveGrpc(const Exchange& exchange, Lane& lane) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    const auto channel =
        grpc::CreateCustomChannel(exchange.address, grpc::InsecureChannelCredentials(), arguments);
    if (!channel->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(10))) {
        ::_exit(1);
    }
    grpc::GenericStub stub(channel);
    grpc::CompletionQueue queue;
    const grpc::Slice slice(exchange.request);
    Run run{exchange, stub, queue, lane, {&slice, 1}, Clock::now() + exchange.time};
    std::deque<Caller> callers;
    for (int i = 0; i < exchange.depth; ++i) callers.emplace_back(run).start();
    while (run.inFlight > 0 && runNextStep(queue)) {
    }
    ::_exit(0);
}

}  // namespace kelm::bench
