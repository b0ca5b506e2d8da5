#include "client/TensorPool.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "utils/Mutex.h"
#include "utils/UniqueFd.h"

namespace kelm::client {

namespace {

constexpr int kNameAttempts = 8;

// 128 random bits, so that the names of many processes do not meet in their one directory.
std::string randomName() {
    static thread_local std::random_device device;
    constexpr char kDigits[] = "0123456789abcdef";
    std::string name = "/kelm-";
    for (int i = 0; i < 4; ++i) {
        unsigned int bits = device();
        for (int digit = 0; digit < 8; ++digit, bits >>= 4) name += kDigits[bits & 0x0f];
    }
    return name;
}

}  // namespace

// One shared memory object that this process made.
class TensorSlot::Segment {
 public:
    static std::unique_ptr<Segment> create(size_t size) {
        for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
            const std::string name = randomName();
            // The service may run as another user of the group.
            const UniqueFd fd(::shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0660));
            if (!fd) {
                if (errno == EEXIST) continue;
                return nullptr;
            }
            auto segment = std::unique_ptr<Segment>(new Segment(name, size));
            if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) return nullptr;
            void* data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
            if (data == MAP_FAILED) return nullptr;
            segment->m_data = data;
            return segment;
        }
        return nullptr;
    }

    // A slot must be held until its task has ended: the service opens the memory by this name,
    // perhaps as late as the result comes.
    ~Segment() {
        if (m_data != nullptr) ::munmap(m_data, m_size);
        ::shm_unlink(m_name.c_str());
    }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    std::span<std::byte> bytes() const { return {static_cast<std::byte*>(m_data), m_size}; }
    Tensor tensor() const { return {Tensor::Kind::kSharedMemory, m_name, -1, m_size}; }

 private:
    Segment(std::string name, size_t size) : m_name(std::move(name)), m_size(size) {}

    const std::string m_name;
    const size_t m_size;
    void* m_data = nullptr;
};

TensorSlot::TensorSlot(std::unique_ptr<Segment> input, std::unique_ptr<Segment> output)
    : m_input(std::move(input)), m_output(std::move(output)) {}
TensorSlot::~TensorSlot() = default;

std::span<std::byte> TensorSlot::input() const { return m_input->bytes(); }
std::span<std::byte> TensorSlot::output() const { return m_output->bytes(); }
Tensor TensorSlot::inputTensor() const { return m_input->tensor(); }
Tensor TensorSlot::outputTensor() const { return m_output->tensor(); }

// Shared with the handles, so that a slot finds its way back or is freed without the pool.
struct TensorPool::State {
    Mutex mutex;
    bool closed GUARDED_BY(mutex) = false;
    std::vector<std::unique_ptr<TensorSlot>> free GUARDED_BY(mutex);

    void giveBack(std::unique_ptr<TensorSlot> slot) EXCLUDES(mutex) {
        MutexLock lock(mutex);
        if (!closed) free.push_back(std::move(slot));
    }

    std::unique_ptr<TensorSlot> take() EXCLUDES(mutex) {
        MutexLock lock(mutex);
        if (free.empty()) return nullptr;
        auto slot = std::move(free.back());
        free.pop_back();
        return slot;
    }
};

TensorPool::TensorPool(size_t inputSize, size_t outputSize)
    : m_inputSize(inputSize), m_outputSize(outputSize), m_state(std::make_shared<State>()) {}

// `free` stands before the lock, and so is destroyed after it: slots are unmapped without the
// mutex.
TensorPool::~TensorPool() {
    std::vector<std::unique_ptr<TensorSlot>> free;
    MutexLock lock(m_state->mutex);
    m_state->closed = true;
    free.swap(m_state->free);
}

Result<TensorPool::Handle> TensorPool::acquire() {
    std::unique_ptr<TensorSlot> slot = m_state->take();
    if (!slot) {
        auto input = TensorSlot::Segment::create(m_inputSize);
        if (!input) return Error::fromErrno("making shared memory for the input");
        auto output = TensorSlot::Segment::create(m_outputSize);
        if (!output) return Error::fromErrno("making shared memory for the output");
        slot.reset(new TensorSlot(std::move(input), std::move(output)));
    }
    // Keeps the state and not the pool, which may be destroyed before the last slot comes back.
    const auto back = [state = m_state](TensorSlot* used) {
        state->giveBack(std::unique_ptr<TensorSlot>(used));
    };
    return Handle(slot.release(), back);
}

}  // namespace kelm::client
