#include "records/Request.h"

#include <fcntl.h>
#include <unistd.h>

#include "fakes/TestPch.h"
#include "fakes/TestRequest.h"
#include "protocol/src/MessagePool.h"

namespace kelm {
namespace {

TEST(RequestTest, UnansweredRequestLetsGoOfItsMessageAndSaysSo) {
    const struct {
        const char* how;
        bool said;
        void (*end)(Request& request);
    } kRows[] = {
        {"destroyed", true, [](Request& request) { Request(std::move(request)); }},
        {"replaced", true, [](Request& request) { request = Request(); }},
        {"answered", false, [](Request& request) { (void)request.take(); }},
        {"wants no answer", false,
         [](Request& request) {
             request.as<KelmMsgReq>().needResponse = 0;
             request = Request();
         }},
        {"is of a type without answer", false,
         [](Request& request) {
             request.getMessage()->type = KELM_MESSAGE_TEST_SEND_FD_REQ;
             request = Request();
         }},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.how);
        Request request = makeDestroyRequest(7, 5);
        const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        request.getMessage()->fdNum = 1;
        request.getMessage()->fd[0] = descriptor;
        messagePool::setOwnsDescriptors(request.getMessage());
        testing::internal::CaptureStdout();
        row.end(request);
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(log.find("of client(id:7) on socket(5)") != std::string::npos, row.said) << log;
        EXPECT_LT(::fcntl(descriptor, F_GETFD), 0);
        EXPECT_FALSE(request);
    }
}

}  // namespace
}  // namespace kelm
