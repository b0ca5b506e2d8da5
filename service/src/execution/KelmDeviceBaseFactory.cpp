#include <utility>

#include "config/ServiceConfigParser.h"
#include "execution/KelmDeviceBase.h"
#include "execution/KelmFakeDevice.h"
#include "execution/KelmZorvanDevice.h"
#include "protocol/src/KelmError.h"

namespace kelm {

namespace {

// What depends on the kind of device that the configuration asks for.
struct DeviceKind {
    void (*initPlatform)();
    int (*resetAllDevices)();
    std::unique_ptr<KelmDeviceBase> (*create)(const std::string& name);
    int (*getGraphInfo)(const char* data, size_t size, KelmGraphInfo what, size_t& result);
};

constexpr DeviceKind kSimulated = {[] {}, []() -> int { return KELM_OK; },
                                   [](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
                                       return std::make_unique<KelmFakeDevice>(name);
                                   },
                                   &KelmFakeDevice::getGraphInfo};

constexpr DeviceKind kAccelerator = {
    &KelmZorvanDevice::initPlatform, &KelmZorvanDevice::resetAllDevices,
    [](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
        return std::make_unique<KelmZorvanDevice>(name);
    },
    &KelmZorvanDevice::getGraphInfo};

const DeviceKind& configuredKind() {
    return ServiceConfigParser::instance().isFakeDeviceEnabled() ? kSimulated : kAccelerator;
}

struct InstalledFactory {
    Mutex mutex;
    KelmDeviceBase::Factory factory GUARDED_BY(mutex);
};

InstalledFactory& installedFactory() {
    static InstalledFactory installed;
    return installed;
}

}  // namespace

void KelmDeviceBase::initPlatform() { configuredKind().initPlatform(); }

int KelmDeviceBase::resetAllDevices() { return configuredKind().resetAllDevices(); }

std::unique_ptr<KelmDeviceBase> KelmDeviceBase::create(const std::string& name) {
    Factory factory;
    {
        MutexLock lock(installedFactory().mutex);
        factory = installedFactory().factory;
    }
    return factory ? factory(name) : configuredKind().create(name);
}

int KelmDeviceBase::getGraphInfo(const char* data, size_t size, KelmGraphInfo what,
                                 size_t& result) {
    return configuredKind().getGraphInfo(data, size, what, result);
}

bool KelmDeviceBase::isFakeDeviceModeEnabled(int* count) {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    if (!config.isFakeDeviceEnabled()) return false;
    if (count != nullptr) *count = config.getFakeDeviceNum();
    return true;
}

void KelmDeviceBase::setFactory(Factory factory) {
    MutexLock lock(installedFactory().mutex);
    installedFactory().factory = std::move(factory);
}

}  // namespace kelm
