/**
 * @file
 * Accounts of the FTP server: who may log in, with which password, and the folder that is all such a user ever sees. A
 * plain account carries its own password; a system account stands for users of the machine, whose passwords and homes
 * are in the system's user and shadow databases.
 *
 * An account belongs to whoever made it until kestal_ftpd_add_account gives it to a server. It has no lock. Passwords
 * are overwritten before their memory is released.
 */
#ifndef KESTAL_ULX_FTPD_ACCOUNT_H
#define KESTAL_ULX_FTPD_ACCOUNT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* Account flags. */
#define KESTAL_FTPD_ACCOUNT_SYSTEM UINT32_C(0x2) /**< the user is looked up in the system's databases */
#define KESTAL_FTPD_ACCOUNT_ROOT                                                                                       \
    UINT32_C(0x9) /**< both bits mark a session of the system's root; they allow nothing more */
#define KESTAL_FTPD_ACCOUNT_HASHED UINT32_C(0x10000) /**< in a session: the password is a hash as crypt(3) makes it */

/** One account. Read freely, changed by the calls below; the links are the caller's until a server has the account. */
typedef struct kestal_ftpd_account {
    struct kestal_ftpd_account *m_prev; /**< the account added before */
    struct kestal_ftpd_account *m_next; /**< the account added next */
    uint32_t m_flags;                   /**< KESTAL_FTPD_ACCOUNT_ bits */
    char *m_user;                       /**< null in a system account: any user of the machine */
    char *m_plain_password;             /**< null: logs in without a password */
    char *m_path_home;                  /**< null: the environment's HOME, else HOMEDRIVE and HOMEPATH, else "/" */
} kestal_ftpd_account_t;

/**
 * A new account without password and home, or null when memory is short. `user` may be null; `flags` are 0 or
 * KESTAL_FTPD_ACCOUNT_SYSTEM. With the latter the password and the home of the account are not used.
 */
KESTAL_API kestal_ftpd_account_t *kestal_ftpd_new_account(const char *user, uint32_t flags);

/** Releases one account that no server has, its password wiped. 0; -1 for null. */
KESTAL_API int32_t kestal_ftpd_free_account(kestal_ftpd_account_t *account);

/** Sets the password; null for none. 0; -1, and the old one stays, for a null account or when memory is short. */
KESTAL_API int32_t kestal_ftpd_account_set_plain_password(kestal_ftpd_account_t *account, const char *password);

/** Sets the home, a path of this machine; null for the process's own. Result as for the password. */
KESTAL_API int32_t kestal_ftpd_account_set_path_home(kestal_ftpd_account_t *account, const char *path);

KESTAL_END_DECLS

#endif
