#include "ftpd_login.hpp"

#include <kestal_ulx/format.h>
#include <kestal_ulx/lock.h>
#include <kestal_ulx/memory.h>

#include "guard.hpp"
#include "lock_guard.hpp"

#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <stdlib.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>

namespace {

using kestal::ftpd_session;

constexpr const char *crypt_libraries[] = {"libcrypto.so", "libcrypt.so", "libcrypt.so.1"};
constexpr size_t traditional_salt_size = 2;
constexpr size_t md5_salt_size = 12; // with its three "$"
constexpr int most_groups = 65536;

// One at a time: crypt keeps its result in memory of its own.
constinit kestal_lock_t database_lock = KESTAL_LOCK_INITIALIZER("ftpd_login", 0);

// What was found at login. The account is the session's own copy; null when there is none.
struct candidate {
    kestal_ftpd_account_t *account = nullptr;
    bool lacks_memory = false;
    uid_t user = 0;
    gid_t group = 0;
};

bool equals(const char *a, const char *b)
{
    return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

// As equals, in a time that does not tell where texts of one length differ.
bool equals_in_even_time(const char *a, const char *b)
{
    const size_t length = strlen(a);
    if (strlen(b) != length)
        return false;
    unsigned difference = 0;
    for (size_t i = 0; i < length; ++i)
        difference |= static_cast<unsigned>(a[i] ^ b[i]);
    return difference == 0;
}

kestal_ftpd_account_t *make_account(const char *user, uint32_t flags, const char *password, const char *home)
{
    kestal_ftpd_account_t *account = kestal_ftpd_new_account(user, flags);
    if (account == nullptr)
        return nullptr;
    if (kestal_ftpd_account_set_plain_password(account, password) == 0 &&
        kestal_ftpd_account_set_path_home(account, home) == 0)
        return account;
    kestal_ftpd_free_account(account);
    return nullptr;
}

// --- the system's databases

// Room for one entry of a database, wiped in the end.
struct entry_memory {
    char bytes[16384];

    ~entry_memory() { explicit_bzero(bytes, sizeof bytes); }
};

// Decides by the entry's password field, which may refer to the shadow database.
void adopt_system_user(const passwd &entry, candidate &found)
{
    entry_memory memory;
    uint32_t flags = KESTAL_FTPD_ACCOUNT_SYSTEM | (equals(entry.pw_name, "root") ? KESTAL_FTPD_ACCOUNT_ROOT : 0);
    const char *password = entry.pw_passwd;
    if (equals(password, "x") || equals(password, "*")) {
        spwd shadow;
        spwd *stored = nullptr;
        getspnam_r(entry.pw_name, &shadow, memory.bytes, sizeof memory.bytes, &stored);
        if (stored == nullptr || stored->sp_pwdp == nullptr)
            return;
        password = stored->sp_pwdp;
        if (equals(password, "!") || equals(password, "*"))
            return;
        flags |= KESTAL_FTPD_ACCOUNT_HASHED;
    }
    found.account = make_account(entry.pw_name, flags, *password == '\0' ? nullptr : password, entry.pw_dir);
    found.lacks_memory = found.account == nullptr;
    found.user = entry.pw_uid;
    found.group = entry.pw_gid;
}

void find_system_user(const char *user, candidate &found)
{
    const kestal::lock_guard guard(database_lock);
    entry_memory memory;
    passwd entry;
    passwd *stored = nullptr;
    getpwnam_r(user, &entry, memory.bytes, sizeof memory.bytes, &stored);
    if (stored != nullptr && stored->pw_passwd != nullptr)
        adopt_system_user(*stored, found);
}

// --- passwords

// A line of the C library's: char *crypt(const char *phrase, const char *setting).
using crypt_function = char *(*)(const char *, const char *);

// The first of the libraries that has a "crypt"; stays open until closed by the caller.
void *open_crypt(crypt_function &function)
{
    for (const char *name : crypt_libraries) {
        void *library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr)
            continue;
        function = reinterpret_cast<crypt_function>(dlsym(library, "crypt"));
        if (function != nullptr)
            return library;
        dlclose(library);
    }
    return nullptr;
}

// The part of a stored hash that crypt takes as its setting: for all but the oldest two kinds, where the salt has no fixed
// length, the whole hash.
size_t salt_size(const char *hash)
{
    const size_t length = strlen(hash);
    if (hash[0] != '$')
        return length > traditional_salt_size ? traditional_salt_size : length;
    return length > md5_salt_size && hash[md5_salt_size - 1] == '$' ? md5_salt_size : length;
}

bool matches_hash(const char *password, const char *hash)
{
    const kestal::lock_guard guard(database_lock);
    crypt_function function = nullptr;
    void *library = open_crypt(function);
    if (library == nullptr)
        return false;
    const size_t size = salt_size(hash);
    const kestal::owned_block<char> salt(kestal_strndup(hash, size), __func__);
    char *result = salt ? function(password, salt.get()) : nullptr;
    const bool matches = result != nullptr && equals_in_even_time(result, hash);
    if (result != nullptr)
        explicit_bzero(result, strlen(result));
    if (salt)
        explicit_bzero(salt.get(), size);
    dlclose(library);
    return matches;
}

bool may_enter(const kestal_ftpd_account_t &account, const char *password)
{
    if (account.m_plain_password == nullptr)
        return true;
    if (password == nullptr)
        return false;
    return (account.m_flags & KESTAL_FTPD_ACCOUNT_HASHED) != 0
               ? matches_hash(password, account.m_plain_password)
               : equals_in_even_time(password, account.m_plain_password);
}

// The account that decides about a user: the first that results.
candidate find_account(const ftpd_session &session, const char *user)
{
    candidate found;
    for (const kestal_ftpd_account_t *each = session.accounts; each != nullptr; each = each->m_next) {
        const bool is_same = equals(each->m_user, user);
        if ((each->m_flags & KESTAL_FTPD_ACCOUNT_SYSTEM) != 0) {
            if (each->m_user == nullptr || is_same)
                find_system_user(user, found);
        } else if (is_same) {
            found.account = make_account(user, each->m_flags, each->m_plain_password, each->m_path_home);
            found.lacks_memory = found.account == nullptr;
        }
        if (found.account != nullptr || found.lacks_memory)
            break;
    }
    return found;
}

// The home of accounts that name none.
bool set_own_home(kestal_ftpd_account_t &account)
{
    const char *home = getenv("HOME");
    const char *drive = getenv("HOMEDRIVE");
    const char *path = getenv("HOMEPATH");
    if (home != nullptr || drive == nullptr || path == nullptr)
        return kestal_ftpd_account_set_path_home(&account, home != nullptr ? home : "/") == 0;
    const kestal::owned_block<char> joined(kestal_alloc_sprintf("%s%s", drive, path), __func__);
    return joined && kestal_ftpd_account_set_path_home(&account, joined.get()) == 0;
}

// --- the numbers under which files are touched: a thread's own, where the C library's calls would change all threads

int set_groups_of_thread(int count, const gid_t *groups)
{
#if defined(SYS_setgroups32)
    return static_cast<int>(syscall(SYS_setgroups32, count, groups));
#else
    return static_cast<int>(syscall(SYS_setgroups, count, groups));
#endif
}

bool set_numbers_of_thread(uid_t user, gid_t group)
{
    setfsgid(group);
    setfsuid(user);
    // A call with a number that does not exist changes nothing and tells the one in force.
    return static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == group &&
           static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == user;
}

void give_identity_back(ftpd_session &session)
{
    kestal::ftpd_identity &identity = session.identity;
    if (!identity.is_taken)
        return;
    set_numbers_of_thread(geteuid(), getegid());
    set_groups_of_thread(identity.group_count, identity.groups);
    kestal_check_free(identity.groups);
    identity = {};
}

// Lets a server that runs as root touch files with the rights of the system's user.
bool take_identity(ftpd_session &session, const candidate &found)
{
    kestal::ftpd_identity &identity = session.identity;
    if ((found.account->m_flags & KESTAL_FTPD_ACCOUNT_SYSTEM) == 0 || geteuid() != 0)
        return true;
    int count = most_groups;
    const kestal::owned_block<gid_t> groups(kestal_alloc(most_groups * sizeof(gid_t)), __func__);
    identity.group_count = getgroups(0, nullptr);
    identity.groups =
        static_cast<gid_t *>(kestal_calloc(static_cast<uint64_t>(identity.group_count) + 1, sizeof(gid_t)));
    identity.is_taken = true;
    if (groups && identity.groups != nullptr && getgroups(identity.group_count, identity.groups) >= 0 &&
        getgrouplist(found.account->m_user, found.group, groups.get(), &count) >= 0 &&
        set_groups_of_thread(count, groups.get()) == 0 && set_numbers_of_thread(found.user, found.group))
        return true;
    give_identity_back(session);
    return false;
}

} // namespace

namespace kestal {

ftpd_login_result ftpd_log_in(ftpd_session &session, const char *user, const char *password)
{
    ftpd_log_out(session);
    candidate found;
    if (session.accounts != nullptr)
        found = find_account(session, user);
    else
        found.lacks_memory = (found.account = kestal_ftpd_new_account(nullptr, 0)) == nullptr;
    if (found.account == nullptr)
        return found.lacks_memory ? ftpd_login_result::no_memory : ftpd_login_result::refused;

    auto result = ftpd_login_result::refused;
    if (may_enter(*found.account, password)) {
        if (found.account->m_path_home == nullptr && !set_own_home(*found.account))
            result = ftpd_login_result::no_memory;
        else if (take_identity(session, found))
            result = ftpd_login_result::accepted;
    }
    if (result != ftpd_login_result::accepted) {
        kestal_ftpd_free_account(found.account);
        return result;
    }
    session.account = found.account;
    kestal_ftpd_account_set_plain_password(session.account, nullptr);
    strcpy(session.current, "/");
    return result;
}

void ftpd_log_out(ftpd_session &session)
{
    if (session.home >= 0)
        close(session.home);
    session.home = -1;
    if (session.account != nullptr)
        kestal_ftpd_free_account(session.account);
    session.account = nullptr;
    give_identity_back(session);
}

} // namespace kestal
