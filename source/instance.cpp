#include "instance.hpp"

#include "lock_guard.hpp"

#include <kestal_ulx/memory.h>

#include <bit>
#include <stdint.h>
#include <string.h>
#include <utility>

namespace {

using kestal::exclusive_spin_guard;
using kestal::shared_spin_guard;

// The registry of the whole process: there while it holds an id. Its lock guards the pointer, not the registry.
constinit kestal_instance_t *global_registry = nullptr;
constinit kestal_spin_lock_t global_lock{};

// --- slots, under the registry's lock

kestal_instance_slot_t *slot_in_use(kestal_instance_t &registry, int32_t id)
{
    if (id < 0 || kestal_fragment_is_used(&registry.m_ids, static_cast<uint64_t>(id)) == 0)
        return nullptr;
    return &registry.m_slots[id];
}

// For look-ups: a slot that is not in use reads as empty.
const kestal_instance_slot_t *slot_to_read(const kestal_instance_t &registry, int32_t id)
{
    return id < 0 || static_cast<uint64_t>(id) >= registry.m_capacity ? nullptr : &registry.m_slots[id];
}

void *object_of(const kestal_instance_slot_t &slot)
{
    return std::bit_cast<void *>(slot.m_context[0]);
}

// Copies a MIME type; an empty one is none. False when memory is short.
bool copy_mime_type(const char *mime_type, char *&copy)
{
    copy = nullptr;
    if (mime_type == nullptr || mime_type[0] == '\0')
        return true;
    copy = kestal_strdup(mime_type);
    return copy != nullptr;
}

// Makes room for `extent` slots, and for half as many to come. False, with nothing changed, when memory is short.
bool reserve_slots(kestal_instance_t &registry, uint64_t extent)
{
    if (extent <= registry.m_capacity)
        return true;
    const uint64_t capacity = extent + extent / 2;
    auto *slots =
        static_cast<kestal_instance_slot_t *>(kestal_calloc(capacity, uint64_t{sizeof(kestal_instance_slot_t)}));
    if (slots == nullptr)
        return false;
    if (registry.m_slots != nullptr)
        memcpy(slots, registry.m_slots, static_cast<size_t>(registry.m_capacity) * sizeof *slots);
    kestal_check_free(registry.m_slots);
    registry.m_slots = slots;
    registry.m_capacity = capacity;
    return true;
}

// The smallest free id, with an empty slot behind it, or -1.
int32_t take_id(kestal_instance_t &registry)
{
    const uint64_t id = kestal_fragment_alloc(&registry.m_ids);
    if (id == KESTAL_FRAGMENT_NONE)
        return -1;
    if (id > INT32_MAX || !reserve_slots(registry, kestal_fragment_extent(&registry.m_ids))) {
        kestal_fragment_free(&registry.m_ids, id);
        return -1;
    }
    return static_cast<int32_t>(id);
}

// Frees an id and hands what its slot held to the caller. False for an unknown id.
bool release_id(kestal_instance_t &registry, int32_t id, kestal_instance_slot_t &held)
{
    kestal_instance_slot_t *slot = slot_in_use(registry, id);
    if (slot == nullptr)
        return false;
    held = std::exchange(*slot, {});
    kestal_fragment_free(&registry.m_ids, static_cast<uint64_t>(id));
    return true;
}

// The end of a released id, without any lock: the handler may use the registry.
void finish_release(kestal_instance_slot_t &held, int32_t id)
{
    if (held.m_delete_handler != nullptr)
        held.m_delete_handler(&held, id);
    kestal_check_free(held.m_mime_type);
}

// --- the process's registry

// Calls `operation(registry)` while the registry cannot go away; `otherwise` when there is none.
template <typename Result, typename Operation>
Result with_global_registry(Result otherwise, Operation operation)
{
    const shared_spin_guard guard(global_lock);
    return global_registry == nullptr ? otherwise : operation(global_registry);
}

// Under the exclusive lock, where no other thread is inside the registry: closes it when nothing is in it.
void close_global_registry_if_empty()
{
    if (global_registry != nullptr && kestal_fragment_count(&global_registry->m_ids) == 0)
        global_registry = kestal_close_instance(global_registry);
}

// An id beyond the signed range, KESTAL_INVALID_ID among them, is negative and so unknown.
int32_t as_signed(uint32_t id)
{
    return static_cast<int32_t>(id);
}

} // namespace

void *kestal::find_ginstance(uint32_t id, const char *mime_type)
{
    return with_global_registry(static_cast<void *>(nullptr), [=](kestal_instance_t *registry) -> void * {
        const shared_spin_guard guard(*registry->m_lock);
        const kestal_instance_slot_t *slot = slot_to_read(*registry, as_signed(id));
        if (slot == nullptr || slot->m_mime_type == nullptr || strcmp(slot->m_mime_type, mime_type) != 0)
            return nullptr;
        return object_of(*slot);
    });
}

kestal_instance_t *kestal_open_instance(void)
{
    auto *memory = static_cast<kestal_instance_t *>(kestal_alloc(uint64_t{sizeof(kestal_instance_t)}));
    if (memory == nullptr)
        return nullptr;
    if (kestal_init_instance(memory) == nullptr)
        kestal_check_free(std::exchange(memory, nullptr));
    return memory;
}

kestal_instance_t *kestal_close_instance(kestal_instance_t *registry)
{
    if (kestal_uninit_instance(registry) == 0)
        kestal_free(registry);
    return nullptr;
}

kestal_instance_t *kestal_init_instance(kestal_instance_t *memory)
{
    if (memory == nullptr)
        return nullptr;
    *memory = {};
    memory->m_lock = kestal_new_spin_lock();
    if (memory->m_lock == nullptr)
        return nullptr;
    kestal_init_fragment(&memory->m_ids);
    return memory;
}

int32_t kestal_uninit_instance(kestal_instance_t *registry)
{
    if (registry == nullptr)
        return -1;
    for (uint64_t id = 0; id < registry->m_capacity; ++id)
        kestal_check_free(registry->m_slots[id].m_mime_type);
    kestal_check_free(registry->m_slots);
    kestal_uninit_fragment(&registry->m_ids);
    kestal_free_spin_lock(registry->m_lock);
    *registry = {};
    return 0;
}

int32_t kestal_instance_new(kestal_instance_t *registry)
{
    return kestal_instance_new_ex(registry, nullptr, nullptr, nullptr);
}

int32_t kestal_instance_new_ex(kestal_instance_t *registry, const void *pointer, const char *mime_type,
                               kestal_instance_delete_handler_t delete_handler)
{
    char *type = nullptr;
    if (registry == nullptr || !copy_mime_type(mime_type, type))
        return -1;
    int32_t id = -1;
    {
        const exclusive_spin_guard guard(*registry->m_lock);
        id = take_id(*registry);
        if (id >= 0)
            registry->m_slots[id] = {{reinterpret_cast<uintptr_t>(pointer), 0, 0}, type, delete_handler};
    }
    if (id < 0)
        kestal_check_free(type);
    return id;
}

int32_t kestal_instance_delete(kestal_instance_t *registry, int32_t id)
{
    if (registry == nullptr)
        return -1;
    kestal_instance_slot_t held{};
    bool released = false;
    {
        const exclusive_spin_guard guard(*registry->m_lock);
        released = release_id(*registry, id, held);
    }
    if (released)
        finish_release(held, id);
    return -1;
}

int32_t kestal_instance_set(kestal_instance_t *registry, int32_t id, const void *pointer, const char *mime_type)
{
    char *type = nullptr;
    if (registry == nullptr || !copy_mime_type(mime_type, type))
        return -1;
    bool known = false;
    {
        const exclusive_spin_guard guard(*registry->m_lock);
        if (kestal_instance_slot_t *slot = slot_in_use(*registry, id)) {
            known = true;
            slot->m_context[0] = reinterpret_cast<uintptr_t>(pointer);
            std::swap(slot->m_mime_type, type);
        }
    }
    kestal_check_free(type); // the old type, or the new one when there is no such id
    return known ? 0 : -1;
}

void *kestal_instance_search(kestal_instance_t *registry, int32_t id, const char **mime_type)
{
    kestal_instance_slot_t found{};
    if (registry != nullptr) {
        const shared_spin_guard guard(*registry->m_lock);
        if (const kestal_instance_slot_t *slot = slot_to_read(*registry, id))
            found = *slot;
    }
    if (mime_type != nullptr)
        *mime_type = found.m_mime_type;
    return object_of(found);
}

uintptr_t kestal_instance_get_context(kestal_instance_t *registry, int32_t id, uint32_t index)
{
    if (registry == nullptr || index >= KESTAL_INSTANCE_CONTEXT_WORDS)
        return 0;
    const shared_spin_guard guard(*registry->m_lock);
    const kestal_instance_slot_t *slot = slot_to_read(*registry, id);
    return slot == nullptr ? 0 : slot->m_context[index];
}

int32_t kestal_instance_set_context(kestal_instance_t *registry, int32_t id, uint32_t index, uintptr_t value)
{
    if (registry == nullptr || index >= KESTAL_INSTANCE_CONTEXT_WORDS)
        return -1;
    const exclusive_spin_guard guard(*registry->m_lock);
    kestal_instance_slot_t *slot = slot_in_use(*registry, id);
    if (slot == nullptr)
        return -1;
    slot->m_context[index] = value;
    return 0;
}

const char *kestal_instance_get_mime_type(kestal_instance_t *registry, int32_t id)
{
    const char *mime_type = nullptr;
    kestal_instance_search(registry, id, &mime_type);
    return mime_type;
}

int32_t kestal_instance_set_delete_handler(kestal_instance_t *registry, int32_t id,
                                           kestal_instance_delete_handler_t delete_handler)
{
    if (registry == nullptr)
        return -1;
    const exclusive_spin_guard guard(*registry->m_lock);
    kestal_instance_slot_t *slot = slot_in_use(*registry, id);
    if (slot == nullptr)
        return -1;
    slot->m_delete_handler = delete_handler;
    return 0;
}

uint32_t kestal_ginstance_new(void)
{
    return kestal_ginstance_new_ex(nullptr, nullptr, nullptr);
}

uint32_t kestal_ginstance_new_ex(const void *pointer, const char *mime_type,
                                 kestal_instance_delete_handler_t delete_handler)
{
    const auto take = [=](kestal_instance_t *registry) {
        return static_cast<uint32_t>(kestal_instance_new_ex(registry, pointer, mime_type, delete_handler));
    };
    {
        const shared_spin_guard guard(global_lock);
        if (global_registry != nullptr)
            return take(global_registry);
    }
    // The first id: taken before the lock is let go, so that nobody finds the new registry empty and closes it.
    const exclusive_spin_guard guard(global_lock);
    if (global_registry == nullptr)
        global_registry = kestal_open_instance();
    const uint32_t id = take(global_registry);
    close_global_registry_if_empty();
    return id;
}

uint32_t kestal_ginstance_delete(uint32_t id)
{
    kestal_instance_slot_t held{};
    bool emptied = false;
    const bool released = with_global_registry(false, [&](kestal_instance_t *registry) {
        const exclusive_spin_guard guard(*registry->m_lock);
        const bool known = release_id(*registry, as_signed(id), held);
        emptied = kestal_fragment_count(&registry->m_ids) == 0;
        return known;
    });
    if (released)
        finish_release(held, as_signed(id));
    if (emptied) {
        const exclusive_spin_guard guard(global_lock);
        close_global_registry_if_empty();
    }
    return KESTAL_INVALID_ID;
}

int32_t kestal_ginstance_set(uint32_t id, const void *pointer, const char *mime_type)
{
    return with_global_registry(-1, [=](kestal_instance_t *registry) {
        return kestal_instance_set(registry, as_signed(id), pointer, mime_type);
    });
}

void *kestal_ginstance_search(uint32_t id, const char **mime_type)
{
    if (mime_type != nullptr)
        *mime_type = nullptr;
    return with_global_registry(static_cast<void *>(nullptr), [=](kestal_instance_t *registry) {
        return kestal_instance_search(registry, as_signed(id), mime_type);
    });
}

uintptr_t kestal_ginstance_get_context(uint32_t id, uint32_t index)
{
    return with_global_registry(uintptr_t{0}, [=](kestal_instance_t *registry) {
        return kestal_instance_get_context(registry, as_signed(id), index);
    });
}

int32_t kestal_ginstance_set_context(uint32_t id, uint32_t index, uintptr_t value)
{
    return with_global_registry(-1, [=](kestal_instance_t *registry) {
        return kestal_instance_set_context(registry, as_signed(id), index, value);
    });
}

const char *kestal_ginstance_get_mime_type(uint32_t id)
{
    const char *mime_type = nullptr;
    kestal_ginstance_search(id, &mime_type);
    return mime_type;
}

int32_t kestal_ginstance_set_delete_handler(uint32_t id, kestal_instance_delete_handler_t delete_handler)
{
    return with_global_registry(-1, [=](kestal_instance_t *registry) {
        return kestal_instance_set_delete_handler(registry, as_signed(id), delete_handler);
    });
}

uint64_t kestal_ginstance_alloc_count(uint64_t *extent)
{
    if (extent != nullptr)
        *extent = 0;
    return with_global_registry(uint64_t{0}, [=](kestal_instance_t *registry) {
        const shared_spin_guard guard(*registry->m_lock);
        if (extent != nullptr)
            *extent = kestal_fragment_extent(&registry->m_ids);
        return kestal_fragment_count(&registry->m_ids);
    });
}
