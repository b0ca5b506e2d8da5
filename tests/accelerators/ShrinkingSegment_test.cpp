#include <deque>

#include "accelerators/AcceleratorFixture.h"
#include "accelerators/TensorClient.h"

namespace kelm {
namespace {

constexpr size_t kSize = 400000;  // of each tensor

// A tensor that its owner shortens at will.
class Segment : public NonCopyable {
 public:
    explicit Segment(KelmBufferType type) : m_type(type) {
        static int last = 0;
        m_name = "kelm-shrinking-" + std::to_string(::getpid()) + "-" + std::to_string(++last);
        m_fd.reset(type == KELM_BUFFER_SHARE_MEMORY
                       ? ::shm_open(("/" + m_name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600)
                       : ::memfd_create(m_name.c_str(), MFD_CLOEXEC));
        resize(kSize);
    }
    ~Segment() {
        if (m_type == KELM_BUFFER_SHARE_MEMORY) ::shm_unlink(("/" + m_name).c_str());
    }

    void resize(size_t size) const {
        EXPECT_EQ(::ftruncate(m_fd.get(), static_cast<off_t>(size)), 0);
    }
    const std::string& name() const { return m_name; }
    void attach(KelmMsgReqInferTask& request, KelmFdRole role, std::vector<int>& fds) const {
        KelmBuffer& buffer = role == KELM_FD_INPUT ? request.inputBuffer : request.outputBuffer;
        buffer.type = m_type;
        buffer.size = kSize;
        if (m_type == KELM_BUFFER_SHARE_MEMORY) {
            ("/" + m_name).copy(buffer.name, sizeof(buffer.name) - 1);
            return;
        }
        request.head.base.fdType[fds.size()] = role;
        fds.push_back(m_fd.get());
        request.head.base.fdNum = static_cast<uint32_t>(fds.size());
    }

 private:
    const KelmBufferType m_type;
    std::string m_name;
    UniqueFd m_fd;
};

// A client that takes its memory back while the service works on it.
class ShrinkingClient {
 public:
    explicit ShrinkingClient(const std::string& path) : m_raw(path, "shrinking") {
        const std::string size = std::to_string(kSize);
        m_graph = m_raw
                      .createGraph({"KELMSIM input=" + size + " output=" + size +
                                    " memory=3 micros=300\nshrinking"})
                      .graphId;
    }

    bool submit(const Segment& input, const Segment& output) {
        auto request = m_raw.makeInfer(m_graph);
        std::vector<int> descriptors;
        input.attach(request, KELM_FD_INPUT, descriptors);
        output.attach(request, KELM_FD_OUTPUT, descriptors);
        return m_raw.send(request, descriptors);
    }
    // The status of the next task that ends, or nothing.
    std::optional<int32_t> wait() {
        const auto done = m_raw.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
        return done ? std::optional(done->as<KelmMsgEvtTaskDone>().status) : std::nullopt;
    }

 private:
    WireClient m_raw;
    uint64_t m_graph = 0;
};

class ShrinkingSegmentTest : public AcceleratorFixture {
 protected:
    ShrinkingSegmentTest() {
        for (const char* device : {"1.1", "1.2"}) plug(device);
    }
    void startFor(const std::string& container) {
        startService(R"("debug_settings": {"tensor_container": ")" + container + "\"}");
    }
    LoadPlan neighbour() const {
        LoadPlan plan;
        plan.name = "neighbour";
        plan.graphs = {"KELMSIM input=5000 output=777 memory=9 micros=1500\nfirst"};
        return plan;
    }
    bool isMapped(const std::string& name) const {
        std::ifstream maps("/proc/" + std::to_string(service().pid()) + "/maps");
        const std::string text{std::istreambuf_iterator<char>(maps), {}};
        return text.find(name) != std::string::npos;
    }
    size_t hangCount(const std::string& function) const {
        return eventCount("hang 1.1 " + function) + eventCount("hang 1.2 " + function);
    }
    // The status of a task whose buffer of the role is shortened while it is mapped and in use.
    std::optional<int32_t> shrinkInUse(ShrinkingClient& client, KelmBufferType type,
                                       KelmFdRole role) {
        const bool isInput = role == KELM_FD_INPUT;
        const std::string function = isInput ? "qxFifoWriteElem" : "qxFifoReadElem";
        const size_t before = hangCount(function);
        host().order("hang * " + function);
        // In force when it has caught a call of the neighbour's.
        EXPECT_TRUE(waitWithEvents([&] { return hangCount(function) > before; }));
        const Segment input(type);
        const Segment output(type);
        EXPECT_TRUE(client.submit(input, output));
        const Segment& shrunk = isInput ? input : output;
        EXPECT_TRUE(eventually([&] { return isMapped(shrunk.name()); })) << lastLines();
        shrunk.resize(role);  // to nothing or to a byte
        host().order("");
        return client.wait();
    }
};

TEST_F(ShrinkingSegmentTest, MemoryThatIsTakenBackEndsTheService) {
    constexpr int kRounds = 8;
    const struct {
        const char* container;
        KelmBufferType type;
    } rows[] = {{"default", KELM_BUFFER_SHARE_MEMORY}, {"system", KELM_BUFFER_ION}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.container);
        startFor(row.container);
        TensorLoad load(path(), neighbour());
        EXPECT_TRUE(load.getsOn()) << lastLines();
        ShrinkingClient client(path());
        for (int round = 0; round < kRounds; ++round) {
            EXPECT_EQ(shrinkInUse(client, row.type, KELM_FD_INPUT), KELM_ERROR_MAP_INPUT_FAILED);
            EXPECT_EQ(shrinkInUse(client, row.type, KELM_FD_OUTPUT), KELM_ERROR_MAP_OUTPUT_FAILED);
        }
        EXPECT_TRUE(waitLogCount("a client shortened its memory", 2 * kRounds));
        EXPECT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        endService();
    }
}

TEST_F(ShrinkingSegmentTest, MomentOfTheShorteningDecidesWhoSurvives) {
#ifdef NDEBUG
    constexpr int kRounds = 150;
#else
    constexpr int kRounds = 30;
#endif
    constexpr int kTasks = 4;
    for (const char* container : {"default", "system"}) {
        SCOPED_TRACE(container);
        startFor(container);
        TensorLoad load(path(), neighbour());
        ShrinkingClient client(path());
        for (int round = 0; round < kRounds; ++round) {
            const auto type = round % 2 == 0 ? KELM_BUFFER_SHARE_MEMORY : KELM_BUFFER_ION;
            std::deque<Segment> inputs;
            std::deque<Segment> outputs;
            for (int i = 0; i < kTasks; ++i) {
                ASSERT_TRUE(client.submit(inputs.emplace_back(type), outputs.emplace_back(type)));
            }
            for (const Segment& segment : round % 3 == 0 ? outputs : inputs) {
                segment.resize(round % 5 * kSize / 5);
            }
            for (int i = 0; i < kTasks; ++i) {
                ASSERT_TRUE(client.wait()) << lastLines();
            }
        }
        EXPECT_TRUE(eventually([&] { return !isMapped("kelm-shrinking-"); })) << "tasks have ended";
        EXPECT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        endService();
    }
}

}  // namespace
}  // namespace kelm
