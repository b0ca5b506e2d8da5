#include "tests/gateway/GatewayFixture.h"

namespace kelm::gateway {
namespace {

const std::string kRaw = R"({"inputs":[{"name":"i","datatype":"UINT8","shape":[4],)"
                         R"("parameters":{"binary_data_size":4}}],)"
                         R"("parameters":{"binary_data_output":true}})";

class RestTest : public GatewayTest {
 protected:
    void SetUp() override { describeModel("m", R"(,"queue":1)"); }
};

TEST_F(RestTest, EachDatatypeGoesThroughJsonAndBack) {
    struct Row {
        const char* type;
        std::string bytes;  // room for BYTES
        const char* in;
        const char* out;  // each byte is one more
    };
    const Row rows[] = {
        {"BOOL", "", "[true,false]", "[true,true]"},
        {"UINT8", "", "[[0],[254]]", "[1,255]"},
        {"UINT16", "", "[0,65278]", "[257,65535]"},
        {"UINT32", "", "[0,4278124286]", "[16843009,4294967295]"},
        {"UINT64", "", "[0,18374403900871474942]", "[72340172838076673,18446744073709551615]"},
        {"INT8", "", "[-128,-2]", "[-127,-1]"},
        {"INT16", "", "[-32768,-258]", "[-32511,-1]"},
        {"INT32", "", "[-2147483648,0]", "[-2130640639,16843009]"},
        {"INT64", "", "[-9223372036854775808,0]", "[-9151031864016699135,72340172838076673]"},
        {"FP32", "", "[0,0.25]", "[2.3694278e-38,1.0078431]"},
        {"FP64", "", "[0,0]", "[7.748604185489348e-304,7.748604185489348e-304]"},
    };
    for (const Row& row : rows) {
        const std::string shape = std::string(R"("datatype":")") + row.type + R"(","shape":[2,1]})";
        dir.write(std::string(row.type) + ".json",
                  describe(R"({"name":"i",)" + shape, R"({"name":"o",)" + shape));
    }
    serve();
    RawPeer peer = connect();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.type);
        const std::string body = std::string(R"({"id":"7","inputs":[{"name":"i","datatype":")") +
                                 row.type + R"(","shape":[2,1],"data":)" + row.in + "}]}";
        const std::string answer = peer.send(post(body, "", row.type)).answer();
        EXPECT_THAT(answer, HasSubstr(std::string(R"("data":)") + row.out + "}"));
        EXPECT_THAT(answer, HasSubstr(R"("id":"7")"));
    }
}

TEST_F(RestTest, RawTensorsComeBackInTheirOrderHoweverTheyAreSent) {
    const std::string pair = R"({"name":"a","datatype":"FP16","shape":[2]},)"
                             R"({"name":"b","datatype":"BYTES","shape":[-1],"bytes":16})";
    dir.write("two.json", describe(pair, R"({"name":"a","datatype":"FP16","shape":[2]},)"
                                         R"({"name":"c","datatype":"UINT8","shape":[16]})"));
    serve();
    const std::string json = R"({"inputs":[{"name":"b","datatype":"BYTES","shape":[2],)"
                             R"("parameters":{"binary_data_size":11}},)"
                             R"({"name":"a","datatype":"FP16","shape":[2],)"
                             R"("parameters":{"binary_data_size":4}}],"outputs":[)"
                             R"({"name":"c","parameters":{"binary_data":true}},)"
                             R"({"name":"a","parameters":{"binary_data":true}}]})";
    const std::string b("\2\0\0\0xy\1\0\0\0z", 11);
    const std::string body = json + b + "abcd";
    const std::string wanted = std::string("\3\1\1\1yz\2\1\1\1{", 11) + "\1\1\1\1\1" + "bcde";
    const std::string whole = post(body, jsonLength(json.size()), "two");
    RawPeer peer = connect();
    EXPECT_THAT(peer.send(whole).answer(), EndsWith("}]}" + wanted));
    for (const char each : whole) peer.send({each});
    EXPECT_THAT(peer.answer(), EndsWith("}]}" + wanted));
    std::string chunked = "POST /v2/models/two/infer HTTP/1.1\r\nHost: h\r\n" +
                          jsonLength(json.size()) + "Transfer-Encoding: chunked\r\n\r\n";
    for (const char each : body) chunked += std::string("1\r\n") + each + "\r\n";
    peer.send(chunked + "0\r\n\r\n" + whole);  // with the next one behind
    EXPECT_THAT(peer.answer(), EndsWith("}]}" + wanted));
    EXPECT_THAT(peer.answer(), EndsWith("}]}" + wanted));
}

TEST_F(RestTest, MalformedRequestsAreRefusedAndOthersServed) {
    serve({.json = 4096, .body = 1 << 20});
    const auto head = [](const std::string& headers) {
        return "POST /v2/models/m/infer HTTP/1.1\r\n" + headers + "\r\n";
    };
    std::vector<std::pair<std::string, int>> rows = {
        {"nonsense\r\n\r\n", 400},
        {"GET / HTTP/2.0\r\nHost: h\r\n\r\n", 400},
        {"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 400},
        {"GET /v2 HTTP/1.1\r\n\r\n", 400},
        {"GET /v2 HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400},
        {"GET /v2 HTTP/1.1\r\nHost : a\r\n\r\n", 400},
        {"GET /v2 HTTP/1.1\r\nHost: a\r\n folded\r\n b\x01: c\r\n\r\n", 400},
        {"GET /v2 HTTP/1.1\r\nHost: h\r\nX: " + std::string(9000, 'x') + "\r\n\r\n", 431},
        {"GET /v3 HTTP/1.1\r\nHost: h\r\n\r\n", 404},
        {"GET /v2/models/%zz HTTP/1.1\r\nHost: h\r\n\r\n", 404},
        {"GET /v2/models/m%00 HTTP/1.1\r\nHost: h\r\n\r\n", 404},
        {"GET /v2/models/m/versions/2 HTTP/1.1\r\nHost: h\r\n\r\n", 404},
        {"GET /v2/models/m/infer HTTP/1.1\r\nHost: h\r\n\r\n", 405},
        {"DELETE /v2/models/m HTTP/1.1\r\nHost: h\r\n\r\n", 405},
        {head("Host: h\r\n"), 411},
        {head("Host: h\r\nContent-Length: x\r\n"), 400},
        {head("Host: h\r\nContent-Length: -1\r\n"), 400},
        {head("Host: h\r\nContent-Length: 2\r\nContent-Length: 3\r\n"), 400},
        {head("Host: h\r\nContent-Length: 18446744073709551616\r\n"), 400},
        {head("Host: h\r\nContent-Length: 2097152\r\n"), 413},
        {head("Host: h\r\nContent-Length: 5000\r\n"), 413},
        {head("Host: h\r\nContent-Length: 2\r\nTransfer-Encoding: chunked\r\n"), 400},
        {head("Host: h\r\nTransfer-Encoding: gzip\r\n"), 400},
        {head("Host: h\r\nTransfer-Encoding: gzip, chunked\r\n"), 400},
        {head("Host: h\r\nContent-Length: 2\r\nContent-Encoding: gzip\r\n"), 415},
        {head("Host: h\r\nContent-Length: 2\r\nExpect: miracles\r\n"), 417},
        {head("Host: h\r\nTransfer-Encoding: chunked\r\n") + "x\r\n", 400},
        {head("Host: h\r\nTransfer-Encoding: chunked\r\n") + "fffffffffffffffff\r\n", 400},
        {head("Host: h\r\nTransfer-Encoding: chunked\r\n") + "1\r\nab\r\n0\r\n\r\n", 400},
        {head("Host: h\r\nTransfer-Encoding: chunked\r\n") + "1400\r\n" + std::string(5120, ' ') +
             "\r\n0\r\n\r\n",
         413},
        {head("Host: h\r\nTransfer-Encoding: chunked\r\n" + jsonLength(9)) + "2\r\n{}\r\n0\r\n\r\n",
         400},
        {head("Host: h\r\nTransfer-Encoding: chunked\r\n" + jsonLength(kOk.size())) + "ff\r\n" +
             kOk + std::string(255 - kOk.size(), 'x') + "\r\n0\r\n\r\n",
         413},
        {post(kRaw + "abcd", jsonLength(kRaw.size()) + jsonLength(kRaw.size())), 400},
        {post(kRaw + "abcd", "Inference-Header-Content-Length: 1x\r\n"), 400},
        {post(kRaw + "abcd", "Inference-Header-Content-Length: -1\r\n"), 400},
        {post(kRaw + "abcd", jsonLength(kRaw.size() + 5)), 400},
        {post(kRaw + "abcd", jsonLength(0)), 400},
        {post(kRaw + "abc", jsonLength(kRaw.size())), 400},
        {post(kRaw + "abcde", jsonLength(kRaw.size())), 400},
    };
    const auto refuse = [&rows](const std::string& body) { rows.emplace_back(post(body), 400); };
    // No request, or one whose inputs are none.
    for (const char* body :
         {"", "{", "[]", "{}", "{\"\xff\":1}", R"({"inputs":[]} x)", R"({"inputs":[],"inputs":[]})",
          R"({"inputs":{}})", R"({"inputs":[]})", R"({"inputs":[7]})"}) {
        refuse(body);
    }
    refuse(std::string(2000, '['));
    refuse(kRaw);
    const std::string good = R"("name":"i","datatype":"UINT8","shape":[4],"data":[1,2,3,4])";
    refuse(R"({"inputs":[{)" + good + "},{" + good + "}]}");
    // Not the tensor of the model.
    for (const char* type : {R"("datatype":"UINT8")", R"("name":"x","datatype":"UINT8")",
                             R"("name":"i","datatype":"INT8")", R"("name":"i","datatype":"FP16")",
                             R"("name":"i","datatype":"uint8")"}) {
        refuse(R"({"inputs":[{)" + std::string(type) + R"(,"shape":[4],"data":[1,2,3,4]}]})");
    }
    // Not its shape, or not the data of its shape and type.
    for (const char* content :
         {R"("shape":[5],"data":[1,2,3,4,5])", R"("shape":[2,2],"data":[1,2,3,4])",
          R"("shape":[-1],"data":[1,2,3,4])", R"("shape":"4","data":[1,2,3,4])",
          R"("shape":[4],"data":[1,2,3])", R"("shape":[4],"data":[[1,2],[3,4]])",
          R"("shape":[4],"data":[1,2,3,[4]])", R"("shape":[4],"data":[1,2,3,256])",
          R"("shape":[4],"data":[1,2,3,-1])", R"("shape":[4],"data":[1,2,3,"4"])",
          R"("shape":[4],"data":[1,2,3,4.5])", R"("shape":[4],"data":"1234")", R"("shape":[4])",
          R"("shape":[4],"data":[1,2,3,4],"parameters":{"binary_data_size":4})"}) {
        refuse(R"({"inputs":[{"name":"i","datatype":"UINT8",)" + std::string(content) + "}]}");
    }
    // Behind good inputs.
    for (const char* more :
         {R"("id":7)", R"("parameters":7)", R"("parameters":{"x":[]})",
          R"("parameters":{"timeout":-1})", R"("parameters":{"priority":16})",
          R"("parameters":{"binary_data_output":1})", R"("outputs":{})",
          R"("outputs":[{"name":"x"}])", R"("outputs":[{"name":"o"},{"name":"o"}])"}) {
        refuse(kOk.substr(0, kOk.size() - 1) + "," + more + "}");
    }
    refuse(kOk.substr(0, kOk.size() - 1) + R"(,"id":")" + std::string(1025, 'x') + "\"}");
    for (const auto& [request, status] : rows) {
        SCOPED_TRACE(request.substr(0, 400));
        RawPeer peer = connect();
        const std::string answer = peer.send(request).answer();
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 " + std::to_string(status) + " "));
        EXPECT_THAT(answer, HasSubstr("{\"error\":\""));
    }
    EXPECT_THAT(connect().send(post(kOk)).answer(), HasSubstr(R"("data":[2,3,4,5])"));
    EXPECT_TRUE(eventually([&] { return gateway->models().find("m")->entered() == 0; }));
}

TEST_F(RestTest, PressureIsToldByItsStatus) {
    serve();
    engine.isHolding = true;
    RawPeer first = connect(post(kOk)), second = connect(post(kOk));
    ASSERT_TRUE(eventually([&] { return engine.held() == 2; }));
    RawPeer third = connect();
    EXPECT_THAT(third.send(post(kOk)).answer(),
                AllOf(StartsWith("HTTP/1.1 429"), HasSubstr("Retry-After: 1")));
    engine.isDown = true;
    EXPECT_THAT(third.send(post(kOk)).answer(), StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(third.send("GET /v2/health/ready HTTP/1.1\r\nHost: h\r\n\r\n").answer(),
                StartsWith("HTTP/1.1 503"));
    engine.isDown = false;
    engine.release(KELM_EXPIRED);
    EXPECT_THAT(first.answer(), AllOf(StartsWith("HTTP/1.1 504"), HasSubstr("as told (KELM_EXP")));
    EXPECT_THAT(second.answer(), StartsWith("HTTP/1.1 504"));
    second.send(post(kOk));
    ASSERT_TRUE(eventually([&] { return engine.held() == 1; }));
    engine.release(-122);
    EXPECT_THAT(second.answer(), AllOf(StartsWith("HTTP/1.1 503"), HasSubstr("-122")));
}

TEST_F(RestTest, PeersTakeNoMoreThanTheirShare) {
    describeModel("m", R"(,"priority":3,"queue":0)");
    serve();
    const std::string json = R"({"inputs":[{"name":"i","datatype":"UINT8","shape":[4],)"
                             R"("parameters":{"binary_data_size":4}}],"parameters":{"priority":)";
    const std::string low = json + "2}}abcd", high = json + "15}}abcd";
    std::string whole = post(high, jsonLength(high.size() - 4));
    whole.pop_back();  // it has a slot then, and no place in the queue
    RawPeer slow = connect(whole);
    RawPeer other = connect();
    EXPECT_THAT(other.send(post(low, jsonLength(low.size() - 4))).answer(), HasSubstr("200 OK"));
    EXPECT_EQ(engine.priority, 2);
    EXPECT_THAT(slow.send("d").answer(), HasSubstr("200 OK"));
    EXPECT_EQ(engine.priority, 3);
}

TEST_F(RestTest, PeerThatHangsUpTakesItsRequestWithIt) {
    serve();
    engine.isHolding = true;
    RawPeer gone = connect(post(kOk));
    RawPeer half = connect(post(kOk));
    ASSERT_TRUE(eventually([&] { return engine.held() == 2; }));
    gone.close();
    ASSERT_TRUE(eventually([&] { return engine.held() == 1; }));
    half.endSending();
    EXPECT_TRUE(eventually([&] { return gateway->models().find("m")->entered() == 0; }));
    RawPeer cut = connect(post(kOk).substr(0, 120));
    cut.endSending();
    EXPECT_THAT(cut.answer(), AllOf(StartsWith("HTTP/1.1 400"), HasSubstr("Connection: close")));
    EXPECT_TRUE(cut.isClosed());
}

TEST_F(RestTest, PipelinedRequestsWaitForTheirTurn) {
    serve();
    engine.isHolding = true;
    RawPeer peer = connect();
    std::string many;
    for (int i = 0; i < 500; ++i) many += post(kOk);
    auto sent = startCalling([&] { peer.send(many); });
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(eventually([&] { return engine.held() == 1; }));
        engine.release();
        EXPECT_THAT(peer.answer(), StartsWith("HTTP/1.1 200"));
    }
    engine.isHolding = false;
    engine.release();
    for (int i = 0; i < 498; ++i) {
        if (engine.held() > 0) engine.release();
        ASSERT_THAT(peer.answer(), StartsWith("HTTP/1.1 200")) << i;
    }
    sent.get();
}

TEST_F(RestTest, SlowAndTooManyPeersAreClosed) {
    serve({.connections = 3, .idle = 1s, .headTime = 200ms, .transfer = 200ms});
    RawPeer idle = connect(), head = connect(), body = connect();
    ASSERT_THAT(head.send("GET /v2 HTTP/1.1\r\nHost: h\r\n\r\n").answer(),
                StartsWith("HTTP/1.1 200"));
    head.send("GET /v2");
    body.send(post(kOk).substr(0, 120));
    EXPECT_TRUE(idle.isClosed());
    for (RawPeer* late : {&head, &body}) {
        EXPECT_THAT(late->answer(), StartsWith("HTTP/1.1 408"));
        EXPECT_TRUE(late->isClosed());
    }
    ASSERT_TRUE(eventually([&] { return server->stop(0ms); }));
}

TEST_F(RestTest, FewOfTheRefusedAreWaitedFor) {
    serve({.connections = 1, .linger = 100s});
    std::list<RawPeer> peers;
    for (int i = 0; i < 200; ++i) peers.emplace_back(server->port());
    for (auto each = std::next(peers.begin()); each != peers.end(); ++each) {
        EXPECT_THAT(each->answer(), StartsWith("HTTP/1.1 503"));
    }
    EXPECT_EQ(gateway->metrics().connections(Protocol::kRest), 65);
}

TEST_F(RestTest, StopAnswersWhatIsUnderWay) {
    serve({.connections = 2});
    engine.isHolding = true;
    RawPeer idle = connect();
    RawPeer busy = connect(post(kOk));
    ASSERT_TRUE(eventually([&] { return engine.held() == 1; }));
    EXPECT_THAT(connect().answer(), StartsWith("HTTP/1.1 503"));  // the third
    gateway->drain();
    EXPECT_FALSE(gateway->isReady());
    auto stopped = startCalling([&] { return server->stop(20s); });
    EXPECT_TRUE(idle.isClosed());
    engine.release();
    EXPECT_THAT(busy.answer(), AllOf(StartsWith("HTTP/1.1 200"), HasSubstr("Connection: close")));
    EXPECT_TRUE(busy.isClosed());
    busy.close();
    EXPECT_TRUE(stopped.get());
}

TEST_F(RestTest, ModelsThatLoadBeforeTheEngineTellsOfDevicesMakeItReady) {
    engine.isDown = true;
    gateway.emplace(engine, dir.path(), [](const std::string&) {});
    ASSERT_TRUE(eventually([&] { return gateway->models().all().size() == 1; }));
    EXPECT_FALSE(gateway->isReady());
    engine.isDown = false;
    EXPECT_TRUE(eventually([&] { return gateway->isReady(); }));
}

TEST_F(RestTest, FolderIsFollowedWithoutAFailedRequest) {
    serve();
    const auto replace = [&](const std::string& more) {
        std::filesystem::rename(dir.write("next", fourBytes(more)), dir.path() + "/m.json");
    };
    engine.isHolding = true;
    RawPeer old = connect(post(kOk));
    ASSERT_TRUE(eventually([&] { return engine.held() == 1; }));
    replace(R"(,"version":"2")");
    const auto version = [&] { return gateway->models().find("m")->description().version; };
    ASSERT_TRUE(eventually([&] { return version() == "2"; }));
    EXPECT_EQ(engine.graphs, 2);
    engine.release();
    EXPECT_THAT(old.answer(), HasSubstr(R"("model_version":"1")"));
    EXPECT_TRUE(eventually([&] { return engine.graphs == 1; }));
    // What cannot be had leaves what is there.
    replace(R"(,"version":"3","tag":"refuse")");
    ASSERT_TRUE(eventually([&] {
        MutexLock lock(mutex);
        return said.find("no room for the graph") != std::string::npos;
    }));
    EXPECT_EQ(version(), "2");
    std::filesystem::remove(dir.path() + "/m.json");
    EXPECT_TRUE(eventually([&] { return gateway->models().all().empty(); }));
    EXPECT_TRUE(eventually([&] { return engine.graphs == 0; }));
}

}  // namespace
}  // namespace kelm::gateway
