#pragma once

#include <cstddef>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

namespace kelm {

// A move-only callable without arguments or result. Captures of up to kInlineSize bytes live in the
// object itself, so that the hand-off of a usual closure allocates nothing.
class InlineTask {
 public:
    static constexpr size_t kInlineSize = 96;

    InlineTask() = default;

    template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, InlineTask>>>
    InlineTask(F&& f) {  // implicit: stands in for any closure
        using Callable = std::decay_t<F>;
        if constexpr (fits<Callable>()) {
            ::new (static_cast<void*>(m_storage)) Callable(std::forward<F>(f));
            m_table = &kInlineTable<Callable>;
        } else {
            ::new (static_cast<void*>(m_storage)) Callable*(new Callable(std::forward<F>(f)));
            m_table = &kHeapTable<Callable>;
        }
    }

    InlineTask(InlineTask&& other) noexcept { takeFrom(other); }
    InlineTask& operator=(InlineTask&& other) noexcept {
        if (this != &other) {
            reset();
            takeFrom(other);
        }
        return *this;
    }
    InlineTask(const InlineTask&) = delete;
    InlineTask& operator=(const InlineTask&) = delete;
    ~InlineTask() { reset(); }

    explicit operator bool() const { return m_table != nullptr; }
    void operator()() { m_table->run(m_storage); }
    // For the thread of a pool, which outlives its tasks: what the task throws is logged.
    void runLogged(const std::string& pool);

    // Destroys the callable with what it captured.
    void reset() {
        if (m_table != nullptr) std::exchange(m_table, nullptr)->destroy(m_storage);
    }

 private:
    struct Table {
        void (*run)(void* storage);
        void (*move)(void* from, void* to) noexcept;  // leaves nothing alive in `from`
        void (*destroy)(void* storage);
    };

    template <class Callable>
    static constexpr bool fits() {
        return sizeof(Callable) <= kInlineSize && alignof(Callable) <= alignof(std::max_align_t) &&
               std::is_nothrow_move_constructible_v<Callable>;
    }

    template <class Callable>
    static Callable& stored(void* storage) {
        return *std::launder(static_cast<Callable*>(storage));
    }

    template <class Callable>
    static constexpr Table kInlineTable{
        [](void* storage) { stored<Callable>(storage)(); },
        [](void* from, void* to) noexcept {
            ::new (to) Callable(std::move(stored<Callable>(from)));
            stored<Callable>(from).~Callable();
        },
        [](void* storage) { stored<Callable>(storage).~Callable(); }};

    template <class Callable>
    static constexpr Table kHeapTable{
        [](void* storage) { (*stored<Callable*>(storage))(); },
        [](void* from, void* to) noexcept { ::new (to) Callable*(stored<Callable*>(from)); },
        [](void* storage) { delete stored<Callable*>(storage); }};

    void takeFrom(InlineTask& other) noexcept {
        m_table = std::exchange(other.m_table, nullptr);
        if (m_table != nullptr) m_table->move(other.m_storage, m_storage);
    }

    alignas(std::max_align_t) std::byte m_storage[kInlineSize];
    const Table* m_table = nullptr;
};

}  // namespace kelm
