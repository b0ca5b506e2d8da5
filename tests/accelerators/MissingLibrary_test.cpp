#include <list>
#include <map>

#include "accelerators/AcceleratorFixture.h"
#include "accelerators/TaskClient.h"

namespace kelm {
namespace {

namespace fs = std::filesystem;

// The service with libraries of the test's choice instead of all simulated ones.
class MissingLibraryTest : public AcceleratorFixture {
 protected:
    // Each library by its name, and the simulated one that stands in for it.
    using Libraries = std::map<std::string, std::string>;

    void startOn(const Libraries& libraries, const std::string& sections = "") {
        const TempDir& directory = m_directories.emplace_back();
        for (const auto& [name, file] : libraries) {
            fs::create_symlink(KELM_SIMULATOR_DIR "/" + file, directory.path() + "/" + name);
        }
        useLibraries(directory.path());
        startService(sections);
    }

 private:
    std::list<TempDir> m_directories;
};

TEST_F(MissingLibraryTest, UselessAcceleratorLibraryIsNamedOnceAndCostsItsDevicesAlone) {
    plug("1.1");
    const std::pair<const char*, Libraries> rows[] = {
        {"library libtevo-kelm.so.0 cannot be loaded", {}},
        {"has no function qx", {{"libtevo-kelm.so.0", "libion.so.0"}}}};
    for (const auto& [words, libraries] : rows) {
        SCOPED_TRACE(words);
        startOn(libraries);
        EXPECT_LT(WireClient(path(), "client").createGraph({"graph"}).head.status, KELM_OK);
        plug("1.3");
        EXPECT_TRUE(waitLogCount("failed to create worker on device(1.3)", 1)) << lastLines();
        EXPECT_TRUE(host().unplug("1.3"));
        EXPECT_EQ(logCount(words), 1U) << lastLines();
        endService();
    }
    startOn({}, R"("fake_device_settings": {"enable_fake_device": true})");
    EXPECT_TRUE(serves());
    EXPECT_EQ(logCount("cannot be loaded"), 0U) << "simulated devices need none";
}

// What the service maps itself can then come by name only.
TEST_F(MissingLibraryTest, UselessIonLibraryCostsTheBuffersThatAreMappedThroughIt) {
    plug("1.1");
    const std::string graph = "KELMSIM input=64 output=64\ngraph";
    const SharedTensor input(KELM_BUFFER_SHARE_MEMORY, 64);
    const SharedTensor output(KELM_BUFFER_SHARE_MEMORY, 64);
    const SharedTensor descriptor(KELM_BUFFER_ION, 64);
    const Libraries none{{"libtevo-kelm.so.0", "libtevo-kelm.so.0"}};
    Libraries other = none;
    other["libion.so.0"] = "libtevo-kelm.so.0";
    const std::pair<const char*, Libraries> rows[] = {{"libion.so.0 cannot be loaded", none},
                                                      {"has no function ion_", other}};
    for (const auto& [words, libraries] : rows) {
        SCOPED_TRACE(words);
        startOn(libraries, R"("debug_settings": {"tensor_container": "system"})");
        TaskClient client(path(), graph);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(client.infer(descriptor, output), KELM_ERROR_MAP_INPUT_FAILED);
            EXPECT_EQ(client.infer(input, descriptor), KELM_ERROR_MAP_OUTPUT_FAILED);
            EXPECT_EQ(client.infer(input, output, &descriptor), KELM_ERROR_MAP_AUX_FAILED);
            EXPECT_EQ(client.infer(input, output), KELM_OK);
        }
        EXPECT_EQ(logCount(words), 1U) << lastLines();
        endService();
    }
    startOn(other);  // where nothing of a descriptor is mapped
    EXPECT_EQ(TaskClient(path(), graph).infer(descriptor, descriptor), KELM_OK);
    EXPECT_EQ(logCount("has no function ion_"), 0U) << lastLines();
}

}  // namespace
}  // namespace kelm
