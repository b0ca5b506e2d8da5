#include "records/Request.h"

#include <fcntl.h>
#include <unistd.h>

#include "fakes/TestPch.h"
#include "fakes/TestRequest.h"
#include "protocol/src/MessagePool.h"

namespace kelm {
namespace {

TEST(RequestTest, UnansweredRequestLetsGoOfItsMessage) {
    void (*const ends[])(Request & request) = {
        [](Request& request) { Request(std::move(request)); },
        [](Request& request) { request = Request(); },
        [](Request& request) { (void)request.take(); },
    };
    for (const auto& end : ends) {
        SCOPED_TRACE(testing::Message() << (&end - ends));
        Request request = makeDestroyRequest(7, 5);
        const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        request.getMessage()->fdNum = 1;
        request.getMessage()->fd[0] = descriptor;
        messagePool::setOwnsDescriptors(request.getMessage());
        end(request);
        EXPECT_LT(::fcntl(descriptor, F_GETFD), 0);
        EXPECT_FALSE(request);
    }
}

}  // namespace
}  // namespace kelm
