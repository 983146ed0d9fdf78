// A small C++ user of the installed library.
#include <kestal_ulx.h>

#include <memory>
#include <string_view>

int main()
{
    struct release {
        void operator()(char *text) const { kestal_free(text); }
    };
    const std::unique_ptr<char, release> copy(kestal_strdup("carried over"));
    return std::string_view(copy.get()) == "carried over" && kestal_get_alloc_count() == 1 ? 0 : 1;
}
