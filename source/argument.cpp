#include <kestal_ulx/argument.h>

#include <kestal_ulx/memory.h>

#include <string.h>
#include <unistd.h>

kestal_argument_t *kestal_open_argument(int32_t argc, char *const *argv, char *const *envp)
{
    auto *argument = static_cast<kestal_argument_t *>(kestal_alloc(sizeof(kestal_argument_t)));
    if (argument == nullptr)
        return nullptr;
    int32_t count = 0;
    while (argv != nullptr && count < argc && argv[count] != nullptr)
        ++count;
    *argument = {.m_argc = count, .m_argv = argv, .m_envp = envp};
    return argument;
}

kestal_argument_t *kestal_close_argument(kestal_argument_t *argument)
{
    return static_cast<kestal_argument_t *>(kestal_check_free(argument));
}

uint32_t kestal_count_argument(const kestal_argument_t *argument)
{
    return argument == nullptr ? 0 : static_cast<uint32_t>(argument->m_argc);
}

const char *kestal_get_argument(const kestal_argument_t *argument, uint32_t index)
{
    return index < kestal_count_argument(argument) ? argument->m_argv[index] : nullptr;
}

const char *kestal_search_argument_variable(const kestal_argument_t *argument, const char *name)
{
    if (argument == nullptr || name == nullptr || *name == '\0' || strchr(name, '=') != nullptr)
        return nullptr;
    char *const *variable = argument->m_envp != nullptr ? argument->m_envp : environ;
    const size_t length = strlen(name);
    for (; variable != nullptr && *variable != nullptr; ++variable)
        if (strncmp(*variable, name, length) == 0 && (*variable)[length] == '=')
            return *variable + length + 1;
    return nullptr;
}
