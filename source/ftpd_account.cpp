#include <kestal_ulx/ftpd_account.h>

#include <kestal_ulx/memory.h>

#include <string.h>

namespace {

void release_wiped(char *text)
{
    if (text == nullptr)
        return;
    explicit_bzero(text, strlen(text));
    kestal_free(text);
}

// A copy of the text in the place of what is there, which stays when there is no memory.
int32_t replace(char *&place, const char *text)
{
    char *copy = text == nullptr ? nullptr : kestal_strdup(text);
    if (text != nullptr && copy == nullptr)
        return -1;
    release_wiped(place);
    place = copy;
    return 0;
}

} // namespace

kestal_ftpd_account_t *kestal_ftpd_new_account(const char *user, uint32_t flags)
{
    auto *account = static_cast<kestal_ftpd_account_t *>(kestal_calloc(1, sizeof(kestal_ftpd_account_t)));
    if (account == nullptr)
        return nullptr;
    account->m_flags = flags;
    if (replace(account->m_user, user) == 0)
        return account;
    kestal_free(account);
    return nullptr;
}

int32_t kestal_ftpd_free_account(kestal_ftpd_account_t *account)
{
    if (account == nullptr)
        return -1;
    release_wiped(account->m_user);
    release_wiped(account->m_plain_password);
    release_wiped(account->m_path_home);
    kestal_free(account);
    return 0;
}

int32_t kestal_ftpd_account_set_plain_password(kestal_ftpd_account_t *account, const char *password)
{
    return account == nullptr ? -1 : replace(account->m_plain_password, password);
}

int32_t kestal_ftpd_account_set_path_home(kestal_ftpd_account_t *account, const char *path)
{
    return account == nullptr ? -1 : replace(account->m_path_home, path);
}
