#include "records/Request.h"

#include <fcntl.h>
#include <unistd.h>

#include "fakes/TestPch.h"
#include "fakes/TestRequest.h"
#include "protocol/src/MessagePool.h"

namespace kelm {
namespace {

// Whether a request that came with a descriptor has let go of it.
class DescriptorOf {
 public:
    explicit DescriptorOf(const Request& request) : m_number(::open("/dev/null", O_RDONLY)) {
        request.getMessage()->fdNum = 1;
        request.getMessage()->fd[0] = m_number;
        messagePool::setOwnsDescriptors(request.getMessage());
    }
    bool isClosed() const { return ::fcntl(m_number, F_GETFD) < 0; }

 private:
    const int m_number;
};

TEST(RequestTest, UnansweredRequestLetsGoOfItsMessageAndSaysSo) {
    const struct {
        const char* how;
        bool said;
        void (*end)(Request& request);
    } kRows[] = {
        {"destroyed", true, [](Request& request) { Request(std::move(request)); }},
        {"replaced", true, [](Request& request) { request = Request(); }},
        {"assigned to", true,
         [](Request& request) {
             request = makeDestroyRequest(8, 9);
             (void)request.take();
         }},
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
        const DescriptorOf descriptor(request);
        testing::internal::CaptureStdout();
        row.end(request);
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(log.find("KELM_MESSAGE_DESTROY_GRAPH_REQ of client(id:7) on socket(5)") !=
                      std::string::npos,
                  row.said)
            << log;
        EXPECT_TRUE(descriptor.isClosed());
        EXPECT_FALSE(request);
    }
}

}  // namespace
}  // namespace kelm
