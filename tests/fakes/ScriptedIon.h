#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "platform/linux/IonLibrary.h"
#include "protocol/src/KelmMessage.h"

namespace kelm {

// An ION library over anonymous memory files while it lives; for one thread. Its handles are
// counted.
class ScriptedIon {
 public:
    ScriptedIon() {
        current() = this;
        IonLibrary::install(&functions());
    }
    ~ScriptedIon() {
        IonLibrary::install(nullptr);
        current() = nullptr;
    }
    ScriptedIon(const ScriptedIon&) = delete;
    ScriptedIon& operator=(const ScriptedIon&) = delete;

    static int makeFd(const std::string& content) {
        const int fd = ::memfd_create("tensor", MFD_CLOEXEC);
        return ::write(fd, content.data(), content.size()) >= 0 ? fd : -1;
    }
    static KelmBuffer makeBuffer(const std::string& content) {
        KelmBuffer buffer{};
        buffer.type = KELM_BUFFER_ION;
        buffer.fd = makeFd(content);
        buffer.size = content.size();
        return buffer;
    }
    static std::string contentOf(int fd, size_t size) {
        std::string content(size, '?');
        return ::pread(fd, content.data(), size, 0) >= 0 ? content : "";
    }

    static constexpr unsigned long kSize = 4096;  // that is told of every buffer

    std::string failing;    // the function that fails
    std::set<int> handles;  // not given back
    int opened = 0;

 private:
    static ScriptedIon*& current() {
        static ScriptedIon* obj = nullptr;
        return obj;
    }
    static bool fails(const char* function) { return current()->failing == function; }
    static int add(int* handle) {
        static int next = 0;
        *handle = ++next;
        current()->handles.insert(*handle);
        return 0;
    }

    static int allocOnly(int, unsigned long, unsigned long, unsigned int, unsigned int, int* handle,
                         ...) {
        return fails("alloc") ? -1 : add(handle);
    }

    // Stays: the one allocator of the process may close the device after the last test.
    static const IonFunctions& functions() {
        static const IonFunctions table = {
            .ion_open =
                [] {
                    if (fails("open")) return -1;
                    ++current()->opened;
                    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
                },
            .ion_close =
                [](int fd) {
                    if (current() != nullptr) --current()->opened;  // else the process ends
                    return ::close(fd);
                },
            .ion_alloc_only = &allocOnly,
            .ion_share =
                [](int, int, int* shareFd) {
                    *shareFd = fails("mmap") ? ::open("/dev/null", O_WRONLY) : makeFd("made");
                    return fails("share") ? ::close(*shareFd) - 1 : 0;
                },
            .ion_import = [](int, int, int* handle) { return fails("import") ? -1 : add(handle); },
            .ion_get_info =
                [](int, int, unsigned int*, unsigned int*, unsigned long* size) {
                    *size = fails("mmap") ? 0 : kSize;
                    return fails("get_info") ? -1 : 0;
                },
            .ion_free = [](int, int handle) { return current()->handles.erase(handle) ? 0 : -1; },
        };
        return table;
    }
};

}  // namespace kelm
