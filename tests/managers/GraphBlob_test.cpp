#include "managers/GraphBlob.h"

#include <sys/stat.h>

#include <fstream>

#include "fakes/Eventually.h"
#include "fakes/TempDir.h"
#include "utils/PeerCredentials.h"

namespace kelm {
namespace {

constexpr uint64_t kThreeSlices = 2 * GraphBlob::kSliceBytes + 1;

GraphBlob readWhole(const std::string& path) {
    GraphBlob blob = GraphBlob::fromFile(path.c_str(), *PeerCredentials::ofThisProcess());
    while (!blob.advance()) {
    }
    return blob;
}

TEST(GraphBlobTest, FileThatChangesWhileItIsReadHasTheDigestOfItsBytesAndNoProvenIdentity) {
    const TempDir dir;
    std::string bytes(kThreeSlices, 'x');
    const std::string path = dir.write("file", bytes);
    // Not before the clock has moved on from when it was written.
    EXPECT_TRUE(eventually([&] { return readWhole(path).isIdentityProven(); }));
    EXPECT_EQ(readWhole(path).getHash(), sha256ForString(bytes));

    GraphBlob blob = GraphBlob::fromFile(path.c_str(), *PeerCredentials::ofThisProcess());
    EXPECT_FALSE(blob.advance());
    std::ofstream(path, std::ios::in).write("yyy", 3);  // of what was read already
    EXPECT_FALSE(blob.advance());
    EXPECT_TRUE(blob.advance());
    EXPECT_EQ(blob.getHash(), sha256ForString(bytes));
    EXPECT_FALSE(blob.isIdentityProven());
    EXPECT_NE(readWhole(path).getHash(), blob.getHash());
}

TEST(FileDigestsTest, OldestMakesRoomAndEveryPartOfAStateCounts) {
    FileDigests digests;
    struct stat status {};
    for (size_t i = 0; i <= FileDigests::kMost; ++i) {
        status.st_ino = i;
        digests.remember(FileIdentity(status), std::to_string(i));
    }
    EXPECT_EQ(*digests.find(FileIdentity(status)), std::to_string(FileDigests::kMost));
    struct stat others[] = {status, status, status, status};
    ++others[0].st_dev;
    ++others[1].st_size;
    ++others[2].st_mtim.tv_nsec;
    ++others[3].st_ctim.tv_nsec;
    for (const auto& other : others) EXPECT_EQ(digests.find(FileIdentity(other)), nullptr);
    status.st_ino = 0;
    EXPECT_EQ(digests.find(FileIdentity(status)), nullptr);
}

}  // namespace
}  // namespace kelm
