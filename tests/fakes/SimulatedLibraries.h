#pragma once

#include "execution/TevoLibrary.h"
#include "platform/linux/IonLibrary.h"
#include "protocol/src/KelmMessage.h"
#include "tools/simulator/CallLog.h"
#include "tools/simulator/Orders.h"
#include "utils/NonCopyable.h"

namespace kelm {

// The simulated ION library in place of the one that would be loaded, while it lives. Orders are
// those of the simulator's control file. One at a time.
class SimulatedIon : public NonCopyable {
 public:
    SimulatedIon() {
        cancelOrders();
        IonLibrary::install(&functions());
    }
    ~SimulatedIon() { IonLibrary::install(nullptr); }

    // One more, with a count of its own.
    void order(const std::string& line) {
        m_orders.push_back(line + " # " + std::to_string(++m_lastOrder));
        simulator::Orders::instance().replace(m_orders);
    }
    // Takes out all that start so.
    void cancelOrders(const std::string& start = "") {
        std::erase_if(m_orders, [&](const std::string& line) { return line.starts_with(start); });
        // A read of what is not there fails the test instead of standing still.
        if (start.empty()) m_orders.emplace_back("patience * 5000");
        simulator::Orders::instance().replace(m_orders);
    }
    int count(const std::string& call) { return m_log.count(call); }
    std::vector<std::string> takeCalls() { return m_log.take(); }
    // Handles, of both libraries, that were made and not given back.
    static int live() { return simulator::CountedHandle::live; }

    static KelmBuffer makeBuffer(const std::string& content) {
        KelmBuffer buffer{};
        buffer.type = KELM_BUFFER_ION;
        buffer.fd = ::memfd_create("tensor", MFD_CLOEXEC);
        buffer.size = content.size();
        return ::write(buffer.fd, content.data(), content.size()) >= 0 ? buffer : KelmBuffer{};
    }
    static std::string contentOf(int fd, size_t size) {
        std::string content(size, '?');
        return ::pread(fd, content.data(), size, 0) >= 0 ? content : "";
    }

 private:
    static const IonFunctions& functions() {
        static const IonFunctions table = {&::ion_open,  &::ion_close,  &::ion_alloc_only,
                                           &::ion_share, &::ion_import, &::ion_get_info,
                                           &::ion_free};
        return table;
    }

    simulator::CallLog m_log;
    std::vector<std::string> m_orders;
    int m_lastOrder = 0;
};

// The simulated accelerator library, too.
class SimulatedLibraries : public SimulatedIon {
 public:
    SimulatedLibraries() { TevoLibrary::install(&functions()); }
    ~SimulatedLibraries() { TevoLibrary::install(nullptr); }

 private:
    static const TevoFunctions& functions() {
#define KELM_SIMULATED_ROW(name) &::name,
        static const TevoFunctions table = {KELM_TEVO_FUNCTIONS(KELM_SIMULATED_ROW)};
#undef KELM_SIMULATED_ROW
        return table;
    }
};

}  // namespace kelm
