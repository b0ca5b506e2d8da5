#include "bench/EchoClient.h"

#include <echo.grpc.pb.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/create_channel.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <vector>

#include "bench/EchoStep.h"

namespace kelm::bench {

namespace {

using Clock = std::chrono::steady_clock;

echo::Request request() {
    echo::Request result;
    result.set_payload(std::string(kEchoRequestBytes, '\0'));
    return result;
}

// What the calls of a process share.
struct Run {
    echo::Echo::Stub& stub;
    grpc::CompletionQueue& queue;
    Lane& lane;
    const Clock::time_point end;
    int inFlight = 0;

    bool mayStart() const { return Clock::now() < end; }
};

// One unary call after the other.
class UnaryCaller final : public EchoStep {
 public:
    explicit UnaryCaller(Run& run) : m_run(run) {}

    void start() {
        m_context = std::make_unique<grpc::ClientContext>();  // each is good for one call
        m_started = Clock::now();
        m_call = m_run.stub.AsyncUnary(m_context.get(), m_request, &m_run.queue);
        m_call->Finish(&m_answer, &m_status, this);
        ++m_run.inFlight;
    }
    void next(bool ok) override {
        if (!ok || !m_status.ok()) ::_exit(1);
        m_run.lane.add(Clock::now() - m_started);
        --m_run.inFlight;
        if (m_run.mayStart()) start();
    }

 private:
    Run& m_run;
    const echo::Request m_request = request();
    echo::Answer m_answer;
    grpc::Status m_status;
    std::unique_ptr<grpc::ClientContext> m_context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<echo::Answer>> m_call;
    Clock::time_point m_started;
};

// Messages of one stream, of which gRPC takes one write at a time; answers come in their order.
class Streamer final : public EchoStep {
 public:
    Streamer(Run& run, int depth) : m_run(run), m_owed(depth) {
        m_stream = m_run.stub.AsyncStream(&m_context, &m_run.queue, this);
        m_run.inFlight = depth;
    }

    // A write is over, or the start.
    void next(bool ok) override {
        if (!ok) ::_exit(1);
        if (!m_reading) read();
        m_writing = false;
        write();
    }

 private:
    class Reader final : public EchoStep {
     public:
        explicit Reader(Streamer& owner) : m_owner(owner) {}
        void next(bool ok) override {
            if (!ok) ::_exit(1);
            m_owner.answered();
        }

     private:
        Streamer& m_owner;
    };

    void read() {
        m_reading = true;
        m_stream->Read(&m_answer, &m_reader);
    }
    void write() {
        if (m_writing || m_owed == 0) return;
        --m_owed;
        m_writing = true;
        m_started.push_back(Clock::now());
        m_stream->Write(m_request, this);
    }
    void answered() {
        m_run.lane.add(Clock::now() - m_started.front());
        m_started.pop_front();
        if (m_run.mayStart()) {
            ++m_owed;
        } else {
            --m_run.inFlight;
        }
        read();
        write();
    }

    Run& m_run;
    int m_owed;  // messages to write
    bool m_reading = false;
    bool m_writing = true;  // until the stream has started
    const echo::Request m_request = request();
    echo::Answer m_answer;
    std::deque<Clock::time_point> m_started;
    grpc::ClientContext m_context;
    Reader m_reader{*this};
    std::unique_ptr<grpc::ClientAsyncReaderWriter<echo::Request, echo::Answer>> m_stream;
};

}  // namespace

void driveEcho(const std::string& address, const EchoLoad& load, Lane& lane) {
    const auto channel = grpc::CreateChannel(address, grpc::InsecureChannelCredentials());
    if (!channel->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(10))) {
        ::_exit(1);
    }
    const auto stub = echo::Echo::NewStub(channel);
    grpc::CompletionQueue queue;
    const ProcessCounts before = ProcessCounts::ofSelf();
    Run run{*stub, queue, lane, Clock::now() + load.time};
    std::unique_ptr<Streamer> streamer;
    std::deque<UnaryCaller> callers;
    if (load.stream) {
        streamer = std::make_unique<Streamer>(run, load.depth);
    } else {
        for (int i = 0; i < load.depth; ++i) callers.emplace_back(run).start();
    }
    while (run.inFlight > 0 && runNextStep(queue)) {
    }
    lane.counts = ProcessCounts::ofSelf() - before;
    ::_exit(0);
}

}  // namespace kelm::bench
