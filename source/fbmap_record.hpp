// What every call on maps does: hold the lock, look for the map, choose the operation, note what changed.
#pragma once

#include <kestal_ulx/fbmap_record.h>

#include <kestal_ulx/assertion.h>

#include "geometry.hpp"

#include <type_traits>

namespace kestal {

// Holds the lock of all maps for a scope. Every public call has one: inline it is smaller than called.
class fbmap_guard {
public:
    [[gnu::always_inline]] fbmap_guard() : held_(kestal_fbmap_lock() == 0) {}
    [[gnu::always_inline]] ~fbmap_guard()
    {
        // The one hold that can fail is a further one of the thread that has the lock anyway.
        if (held_)
            kestal_fbmap_unlock();
    }
    fbmap_guard(const fbmap_guard &) = delete;
    fbmap_guard &operator=(const fbmap_guard &) = delete;

private:
    bool held_;
};

// Runs the body of a public call under the lock. A null map is reported and gives `failure`.
template <typename Result, typename Body>
Result on_fbmap(const kestal_fbmap_t *map, const char *source, Result failure, Body body,
                const char *function = __builtin_FUNCTION(), uint64_t line = static_cast<uint64_t>(__builtin_LINE()))
{
    if (map == nullptr) {
        kestal_assert_fail_tag(source, function, line, "s_fbmap is null !");
        return failure;
    }
    const fbmap_guard guard;
    return body();
}

// Whether the library draws at a map's depth; reported when not.
bool is_served(const kestal_fbmap_t &map, const char *source, const char *caller);

// One operation of every map: its slot, its public call, and the library's routine.
template <typename Result, typename... Arguments>
class fbmap_operation {
public:
    using function = Result (*)(kestal_fbmap_t *, Arguments...);

    constexpr fbmap_operation(const char *source, function kestal_fbmap_operations_t::*slot, function entry,
                              function routine)
        : source_(source), slot_(slot), entry_(entry), routine_(routine)
    {}

    // Whether the map has the operation; reported when not.
    bool serves(kestal_fbmap_t &map, const char *caller = __builtin_FUNCTION()) const
    {
        return choose(map, caller) != nullptr;
    }

    // Whether the map's operation is the library's own: then who knows a faster way may take it.
    bool is_built_in(kestal_fbmap_t &map) const { return choose(map, __func__) == routine_; }

    // Runs the map's operation, under the lock.
    Result run(kestal_fbmap_t &map, Arguments... arguments, const char *caller = __builtin_FUNCTION()) const
    {
        const function chosen = choose(map, caller);
        return chosen == nullptr ? static_cast<Result>(-1) : chosen(&map, arguments...);
    }

    // What the public call does.
    Result enter(kestal_fbmap_t *map, Arguments... arguments, const char *caller = __builtin_FUNCTION()) const
    {
        return on_fbmap(
            map, source_, static_cast<Result>(-1), [&] { return run(*map, arguments..., caller); }, caller);
    }

private:
    // The function in the map's slot; an empty slot is first filled with the library's routine. The public call in a slot is
    // as good as nothing. Null, and reported, when the depth is not served.
    function choose(kestal_fbmap_t &map, const char *caller) const
    {
        function &chosen = map.m_operations.*slot_;
        if (chosen != nullptr && chosen != entry_)
            return chosen;
        return is_served(map, source_, caller) ? chosen = routine_ : nullptr;
    }

    const char *source_;
    function kestal_fbmap_operations_t::*slot_;
    function entry_;
    function routine_;
};

inline bool has_flag(const kestal_fbmap_t &map, uint32_t flag)
{
    return (map.m_flags & flag) != 0;
}

inline area whole_of(const kestal_raw_bitmap_t &bitmap)
{
    return area::of(0, 0, bitmap.m_width, bitmap.m_height);
}

// Notes for the next update that a shown map's pixels changed in an area that lies in the map.
inline void note_change(kestal_fbmap_t &map, const area &changed)
{
    if (!has_flag(map, KESTAL_FBMAP_HIDDEN))
        map.m_update = area::of(map.m_update).joined(changed).rectangle();
}

inline kestal_fbmap_t &root_of(kestal_fbmap_t &map)
{
    kestal_fbmap_t *root = &map;
    while (root->m_parent != nullptr)
        root = root->m_parent;
    return *root;
}

} // namespace kestal
