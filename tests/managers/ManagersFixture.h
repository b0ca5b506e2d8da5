#pragma once

#include "fakes/ScriptedDevice.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceInProcess.h"
#include "managers/ClientManager.h"
#include "utils/UniqueFd.h"

namespace kelm {

// A descriptor to give away with a request, and whether the service has closed its copy.
class DescriptorProbe {
 public:
    DescriptorProbe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe(ends), 0);
        m_watched.reset(ends[0]);
        m_given.reset(ends[1]);
    }
    int get() const { return m_given.get(); }
    // To be called once it is sent: only the service's copy keeps it open.
    void sent() { m_given.reset(); }
    bool isClosed() const {
        return eventually([this] {
            pollfd state{m_watched.get(), POLLIN, 0};
            return ::poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
        });
    }

 private:
    UniqueFd m_watched;
    UniqueFd m_given;
};

// The service in this process, whose managers a case can ask.
class ManagersFixture : public ServiceFixture<ServiceInProcess> {
 protected:
    // `sections` are members of the configuration.
    virtual void start(const std::string& sections = "") { ServiceFixture::start(sections); }
    // Starts the service and returns its first client.
    WireClient startAndConnect(const std::string& name = "client") {
        start();
        return connect(name);
    }
    WireClient connect(const std::string& name = "client") const {
        WireClient client(path(), name);
        EXPECT_NE(client.id(), 0U);
        return client;
    }
    static bool noClientIsLeft() {
        return eventually([] { return !ClientManager::instance().isActive(); });
    }
    // Whether all connections end, and the service with them has nothing to do.
    static bool noConnectionIsLeft() {
        return eventually([] {
            return ServiceInProcess::noConnections() && !ServiceInProcess::dispatcher().isWorking();
        });
    }
};

// The same on one device that does what the case says.
class ScriptedFixture : public ManagersFixture {
 protected:
    void start(const std::string& sections = "") override {
        ManagersFixture::start(sections + (sections.empty() ? "" : ", ") +
                               R"("fake_device_settings": {"fake_device_number": 1})");
    }
    void TearDown() override {
        releaseAll();
        ManagersFixture::TearDown();
    }

    DeviceScript& device() { return m_devices["Fake0"]; }
    void releaseAll() {
        for (const DeviceCall call :
             {DeviceCall::Allocate, DeviceCall::Deallocate, DeviceCall::LoadTensor}) {
            device().release(call);
        }
    }
    // Whether the device comes to its first call of the kind.
    bool isReached(DeviceCall call) {
        return eventually([&] { return device().count(call) == 1; });
    }
    // The id of a new graph once it finds a place; 0 if it never does.
    static uint64_t placeIsGivenBack(WireClient& client, const std::string& blob) {
        uint64_t id = 0;
        (void)eventually([&] { return (id = client.createGraph({blob}).graphId) != 0; });
        return id;
    }

    // A task whose input is the probe's descriptor.
    static void sendInfer(WireClient& client, KelmMsgReqInferTask request, DescriptorProbe& input) {
        request.inputBuffer.type = KELM_BUFFER_ION;
        request.head.base.fdNum = 1;
        request.head.base.fdType[0] = KELM_FD_INPUT;
        EXPECT_TRUE(client.send(request, {input.get()}));
        input.sent();
    }
    static void sendInfer(WireClient& client, uint64_t graph, DescriptorProbe& input) {
        sendInfer(client, client.makeInfer(graph), input);
    }
    static KelmMsgRspInferTask infer(WireClient& client, uint64_t graph, DescriptorProbe& input) {
        sendInfer(client, graph, input);
        return client.receive<KelmMsgRspInferTask>();
    }

 private:
    ScriptedDevices m_devices;  // must outlive the service, which makes its devices here
};

}  // namespace kelm
