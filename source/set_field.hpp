// Setters of objects that callers hold by pointer.
#pragma once

#include <stdint.h>
#include <type_traits>

namespace kestal {

// Sets a field of an object, or of the record that it is the public part of: 0, or -1 for a null object.
template <typename Object, typename Owner, typename Value>
int32_t set_field(Object *object, Value Owner::*field, std::type_identity_t<Value> value)
{
    if (object == nullptr)
        return -1;
    static_cast<Owner *>(object)->*field = value;
    return 0;
}

} // namespace kestal
