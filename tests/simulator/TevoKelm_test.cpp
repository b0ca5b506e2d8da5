#include <sys/mman.h>

#include <numeric>

#include "fakes/Eventually.h"
#include "fakes/TempDir.h"
#include "service/src/execution/TevoApi.h"
#include "service/src/platform/linux/IonApi.h"
#include "tools/simulator/Model.h"
#include "tools/simulator/Status.h"
#include "utils/UniqueFd.h"

namespace kelm::simulator {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<uint8_t>;

constexpr const char* kBlob = "KELMSIM input=16 output=40 memory=8 micros=100 times=3 debug=5\nx";

// The libraries keep the first directory that they see, so all cases of a process share one.
const TempDir& directory() {
    static const TempDir dir;
    static const bool set = ::setenv("KELM_SIM_DIR", dir.path().c_str(), 1) == 0;
    EXPECT_TRUE(set);
    return dir;
}

class TevoKelmTest : public ::testing::Test {
 protected:
    TevoKelmTest() {
        directory().write("events", "");
        order("");
        plug("1.2 1\n1.3 2\n");
        // An answer of the library tells that it has seen both files.
        EXPECT_TRUE(eventually([this] { return open("1.2") == kOk; }));
    }
    ~TevoKelmTest() override { closeAll(); }

    static void replace(const std::string& name, const std::string& text) {
        const std::string temporary = directory().write(name + ".new", text);
        std::filesystem::rename(temporary, directory().path() + "/" + name);
    }
    static void order(const std::string& lines) { replace("control", lines); }
    static void plug(const std::string& lines) { replace("bus", lines); }
    static std::vector<std::string> events() {
        std::vector<std::string> all;
        std::ifstream file(directory().path() + "/events");
        for (std::string line; std::getline(file, line);) all.push_back(line);
        return all;
    }

    int open(const char* name) { return qxDeviceOpenBooted(&m_device, name); }
    int load(const std::string& blob = kBlob, unsigned int capacity = 2) {
        m_model = *Model::parse({reinterpret_cast<const uint8_t*>(blob.data()), blob.size()});
        EXPECT_EQ(qxGraphCreate("firstGraph", &m_graph), kOk);
        const auto length = static_cast<unsigned int>(blob.size());
        if (int status = qxGraphAllocate(m_device, m_graph, blob.data(), length)) return status;
        allocate(QX_FIFO_HOST_WO, QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS, capacity, &m_in);
        allocate(QX_FIFO_HOST_RO, QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS, capacity, &m_out);
        return kOk;
    }
    void allocate(int type, int descriptors, unsigned int capacity, qxFifoHandle_t** fifo) {
        qxTensorDescriptor_t descriptor{};
        unsigned int length = sizeof(descriptor);
        EXPECT_EQ(qxGraphGetOption(m_graph, descriptors, &descriptor, &length), kOk);
        EXPECT_EQ(qxFifoCreate("fifo", type, fifo), kOk);
        EXPECT_EQ(qxFifoAllocate(*fifo, m_device, &descriptor, capacity), kOk);
    }
    void closeAll() {
        if (m_in != nullptr) (void)qxFifoDestroy(&m_in);
        if (m_out != nullptr) (void)qxFifoDestroy(&m_out);
        if (m_graph != nullptr) (void)qxGraphDestroy(&m_graph);
        if (m_device != nullptr) (void)qxDeviceDestroy(&m_device);
    }
    int queue() { return qxGraphQueueInference(m_graph, &m_in, 1, &m_out, 1); }
    int write(const Bytes& input, unsigned long userValue) {
        auto length = static_cast<unsigned int>(input.size());
        return qxFifoWriteElem(m_in, input.data(), &length, userValue);
    }
    int read(Bytes& output, unsigned long& userValue) {
        auto length = static_cast<unsigned int>(output.size());
        const int status = qxFifoReadElem(m_out, output.data(), &length, &userValue);
        output.resize(length);
        return status;
    }
    Bytes expected(const Bytes& input) const {
        Bytes output(m_model.outputSize);
        m_model.infer(input, output);
        return output;
    }
    template <class T>
    T option(int number) {
        T value{};
        unsigned int length = sizeof(value);
        EXPECT_EQ(qxDeviceGetOption(m_device, number, &value, &length), kOk);
        return value;
    }

    qxDeviceHandle_t* m_device = nullptr;
    qxGraphHandle_t* m_graph = nullptr;
    qxFifoHandle_t* m_in = nullptr;
    qxFifoHandle_t* m_out = nullptr;
    Model m_model;
};

TEST_F(TevoKelmTest, ResultIsAnothersOrNotOfItsInput) {
    ASSERT_EQ(load(), kOk);
    const Bytes inputs[] = {Bytes(16, 1), Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 1, 2, 3, 4, 5, 6}};
    for (unsigned long i : {0, 1}) {
        EXPECT_EQ(write(inputs[i], 70 + i), kOk);
        EXPECT_EQ(queue(), kOk);
    }
    for (unsigned long i : {0, 1}) {
        Bytes output(100);
        unsigned long userValue = 0;
        EXPECT_EQ(read(output, userValue), kOk);
        EXPECT_EQ(userValue, 70 + i);
        EXPECT_EQ(output, expected(inputs[i]));
        EXPECT_EQ(output[17], inputs[i][1] ^ static_cast<uint8_t>(m_model.key >> 8));
    }
}

TEST_F(TevoKelmTest, WrongLengthIsTakenOrShiftsTheResultsBehindIt) {
    ASSERT_EQ(load(), kOk);
    EXPECT_EQ(write(Bytes(15), 1), kInvalid);
    EXPECT_EQ(write(Bytes(17), 1), kInvalid);
    for (unsigned long task : {2, 3}) {
        EXPECT_EQ(write(Bytes(16), task), kOk);
        EXPECT_EQ(queue(), kOk);
    }
    unsigned long userValue = 0;
    Bytes output(39);
    EXPECT_EQ(read(output, userValue), kInvalid);
    output.resize(40);
    EXPECT_EQ(read(output, userValue), kOk);
    EXPECT_EQ(userValue, 3U);
}

TEST_F(TevoKelmTest, FullFifoTakesMore) {
    ASSERT_EQ(load(), kOk);
    EXPECT_EQ(write(Bytes(16), 1), kOk);
    EXPECT_EQ(write(Bytes(16), 2), kOk);
    std::atomic<bool> queued{false};
    std::thread writer([&] {
        EXPECT_EQ(write(Bytes(16), 3), kOk);
        EXPECT_TRUE(queued);
    });
    queued = true;
    EXPECT_EQ(queue(), kOk);
    writer.join();
}

TEST_F(TevoKelmTest, SharedBuffersAreNotReachedByTheirDescriptors) {
    ASSERT_EQ(load(), kOk);
    const UniqueFd ion(ion_open());
    int handles[2] = {};
    int fds[2] = {};
    unsigned char* data[2] = {};
    for (int i : {0, 1}) {
        ASSERT_EQ(ion_alloc_only(ion.get(), 64, 0, 16, 0, &handles[i]), 0);
        ASSERT_EQ(ion_share(ion.get(), handles[i], &fds[i]), 0);
        data[i] = static_cast<unsigned char*>(
            ::mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED, fds[i], 0));
    }
    std::iota(data[0], data[0] + 16, static_cast<unsigned char>(5));
    unsigned int length = 16;
    EXPECT_EQ(qxFifoWriteIonElem(m_in, fds[0], &length, 9), kOk);
    EXPECT_EQ(queue(), kOk);
    unsigned long userValue = 0;
    length = 64;
    EXPECT_EQ(qxFifoReadIonElem(m_out, fds[1], &length, &userValue), kOk);
    EXPECT_EQ(length, 40U);
    EXPECT_EQ(Bytes(data[1], data[1] + 40), expected(Bytes(data[0], data[0] + 16)));
    length = 65;
    EXPECT_EQ(qxFifoWriteIonElem(m_in, fds[0], &length, 9), kInvalid);

    int imported = 0;
    unsigned long size = 0;
    EXPECT_EQ(ion_import(ion.get(), fds[0], &imported), 0);
    EXPECT_EQ(ion_get_info(ion.get(), imported, nullptr, nullptr, &size), 0);
    EXPECT_EQ(size, 64U);
    EXPECT_EQ(ion_free(ion.get(), imported), 0);
    EXPECT_LT(ion_free(ion.get(), imported), 0);
    EXPECT_LT(ion_import(ion.get(), 0x7fff, &imported), 0);
    for (int i : {0, 1}) {
        EXPECT_EQ(ion_free(ion.get(), handles[i]), 0);
        ::munmap(data[i], 64);
        ::close(fds[i]);
    }
}

TEST_F(TevoKelmTest, OrderIsForgottenRepeatedOrMeetsAnotherDevice) {
    order("fail 1.2 qxDeviceGetId -6 2\nheat 1.2 90 3 # hot\nmemory 1.2 20\nfail 1.3 * -8\n");
    unsigned int id = 0;
    ASSERT_TRUE(eventually([&] { return qxDeviceGetId(m_device, &id) == -6; }));
    order("fail 1.2 qxDeviceGetId -6 2\nheat 1.2 90 3\nmemory 1.2 20\nnonsense\n");
    ASSERT_TRUE(eventually([&] { return qxDeviceGetId(m_device, &id) == kOk; }));
    EXPECT_EQ(qxDeviceGetId(m_device, &id), kOk);
    using Stats = std::array<float, kThermalFloats>;
    EXPECT_EQ(option<Stats>(QX_RO_DEVICE_THERMAL_STATS).at(2), 89.5f);
    EXPECT_EQ(option<int>(QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL), 3);
    EXPECT_EQ(option<unsigned>(QX_RO_DEVICE_MEMORY_SIZE), 20U << 20);
    EXPECT_EQ(option<unsigned>(QX_RO_DEVICE_CURRENT_MEMORY_USED), 16U << 20);
    EXPECT_EQ(load(), kNoMemory);

    order("fail 1.2 qxDeviceGetId -6 2 # again\nhang 1.2 qxDeviceClose\n");
    ASSERT_TRUE(eventually([&] { return qxDeviceGetId(m_device, &id) == -6; }));
    std::atomic<bool> released{false};
    std::thread closer([&] {
        EXPECT_EQ(qxDeviceClose(m_device), kOk);
        EXPECT_TRUE(released);
    });
    EXPECT_TRUE(eventually([] { return !events().empty(); }));
    EXPECT_THAT(events(), ElementsAre("hang 1.2 qxDeviceClose"));
    released = true;
    order("");
    closer.join();
}

TEST_F(TevoKelmTest, FailedReadKeepsItsResultAndALostOneDoesNot) {
    ASSERT_EQ(load("KELMSIM input=16 output=40 micros=1\n", 5), kOk);
    for (const unsigned long task : {1, 2, 3, 4}) {
        EXPECT_EQ(write(Bytes(16), task), kOk);
        EXPECT_EQ(queue(), kOk);
    }
    order(
        "fail 1.2 qxFifoReadElem -7 1 2\nlose 1.2 qxFifoReadElem -9 1\n"
        "fail 1.2 qxDeviceGetOption(2001) -1");
    int level = 0;
    unsigned int length = sizeof(level);
    ASSERT_TRUE(eventually([&] {
        return qxDeviceGetOption(m_device, QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL, &level, &length);
    }));
    EXPECT_EQ(option<unsigned>(QX_RO_DEVICE_MEMORY_SIZE), 512U << 20);
    const std::pair<int, unsigned long> reads[] = {{-9, 0}, {-7, 0}, {kOk, 2}, {kOk, 3}, {kOk, 4}};
    for (const auto& [status, task] : reads) {
        Bytes output(40);
        unsigned long userValue = 0;
        EXPECT_EQ(read(output, userValue), status);
        EXPECT_EQ(userValue, task);
    }
}

TEST_F(TevoKelmTest, CallWaitsForADeviceThatHasLeft) {
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"reset", [this] { EXPECT_EQ(qxDeviceHWReset(m_device), kOk); }},
        {"unplugged", [] { plug("1.3 2\n"); }},
        {"vanished", [] { order("vanish 1.2\n"); }},
    };
    int address = 1;
    for (const auto& [name, leave] : rows) {
        SCOPED_TRACE(name);
        ASSERT_EQ(load(), kOk);
        std::thread reader([this] {
            Bytes output(40);
            unsigned long userValue = 0;
            EXPECT_EQ(read(output, userValue), kGone);
        });
        leave();
        reader.join();
        EXPECT_EQ(write(Bytes(16), 1), kGone);
        closeAll();
        EXPECT_EQ(open("1.2"), kNoDevice);
        order("");
        plug("1.3 2\n1.2 " + std::to_string(++address * 10) + "\n");
        ASSERT_TRUE(eventually([this] { return open("1.2") == kOk; }));
    }
    EXPECT_THAT(events(), ElementsAre("reset 1.2"));
}

TEST_F(TevoKelmTest, DeviceIsOpenTwiceOrLeftWithItsGraphs) {
    qxDeviceHandle_t* second = nullptr;
    EXPECT_EQ(qxDeviceOpenBooted(&second, "1.2"), kBusy);
    EXPECT_EQ(qxDeviceOpenBooted(&second, "7.7"), kNoDevice);
    ASSERT_EQ(load(), kOk);
    EXPECT_EQ(qxFifoDestroy(&m_in), kOk);
    EXPECT_EQ(qxDeviceClose(m_device), kOk);
    EXPECT_EQ(qxDeviceDestroy(&m_device), kOk);
    EXPECT_THAT(events(), ElementsAre("leak 1.2 graphs=1 fifos=1"));
}

TEST_F(TevoKelmTest, SizesOfABlobDifferWithAndWithoutADevice) {
    ASSERT_EQ(load(), kOk);
    const struct {
        int type;
        unsigned int size;
    } rows[] = {{QX_NINTPUT_SIZE, 16},
                {QX_NOUTPUT_SIZE, 40},
                {QX_TIMETAKEN_SIZE, 12},
                {QX_DEBUG_INFO_SIZE, 5},
                {QX_THERMAL_SIZE, 100}};
    const auto blobSize = static_cast<unsigned int>(std::strlen(kBlob));
    for (const auto& row : rows) {
        unsigned int value = 0;
        unsigned int length = 4;
        EXPECT_EQ(qxGraphGetInfoSize(kBlob, blobSize, row.type, &value, &length), kOk);
        EXPECT_EQ(value, row.size);
    }
    float times[3] = {};
    unsigned int length = 10;
    EXPECT_EQ(qxGraphGetOption(m_graph, QX_RO_GRAPH_TIME_TAKEN, times, &length), kOk);
    EXPECT_EQ(length, 10U);
    EXPECT_FLOAT_EQ(times[1], 0.5f);
    unsigned int none = 0;
    for (const char* blob : {"KELMSIM inpu=1\n", "KELMSIM input=0\n", "KELMSIM input=1", ""}) {
        length = 4;
        const auto size = static_cast<unsigned int>(std::strlen(blob));
        EXPECT_EQ(qxGraphGetInfoSize(blob, size, QX_NINTPUT_SIZE, &none, &length), kNoGraph);
    }
}

}  // namespace
}  // namespace kelm::simulator
