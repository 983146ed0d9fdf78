// Logging in to an FTP server, with questions to the user where the client's settings allow them.
#include "ftp.hpp"

#include <kestal_ulx/output.h>
#include <kestal_ulx/percent.h>

#include <algorithm>
#include <errno.h>
#include <termios.h>
#include <unistd.h>

namespace {

using kestal::secret_text;

constexpr char anonymous_user[] = "anonymous";
constexpr char anonymous_password[] = "anonymous@localhost";
constexpr char image_type[] = "I";

constexpr int32_t code_logged_in = 230;
constexpr int32_t code_need_password = 331;
constexpr int32_t code_refused = 530;

// An answer typed at a prompt; nobody finds it in memory afterwards.
class prompt_answer {
public:
    prompt_answer() = default;
    ~prompt_answer() { wipe(); }
    prompt_answer(const prompt_answer &) = delete;
    prompt_answer &operator=(const prompt_answer &) = delete;

    const char *get() const { return text_; }

    // Asks for a line; false without one, and for one that does not fit.
    bool ask(const char *question)
    {
        wipe();
        kestal_puts(question);
        kestal_puts(nullptr);
        size_t length = 0;
        char character = '\0';
        ssize_t count = 0;
        while ((count = read_one(character)) == 1 && character != '\n' && character != '\r') {
            if (length < sizeof text_)
                text_[length] = character;
            ++length;
        }
        const bool is_whole = length < sizeof text_ && (count == 1 || length > 0);
        text_[std::min(length, sizeof text_ - 1)] = '\0';
        explicit_bzero(&character, sizeof character);
        return is_whole;
    }

private:
    static ssize_t read_one(char &character)
    {
        ssize_t count;
        do
            count = read(STDIN_FILENO, &character, 1);
        while (count < 0 && errno == EINTR);
        return count;
    }
    void wipe() { explicit_bzero(text_, sizeof text_); }

    char text_[256] = {};
};

// While it lives, a terminal on standard input does not show what is typed but for the line's end.
class echo_guard {
public:
    echo_guard()
    {
        is_terminal_ = tcgetattr(STDIN_FILENO, &before_) == 0;
        if (!is_terminal_)
            return;
        termios hidden = before_;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        hidden.c_lflag |= ECHONL;
        tcsetattr(STDIN_FILENO, TCSANOW, &hidden);
    }
    ~echo_guard()
    {
        if (is_terminal_)
            tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }
    echo_guard(const echo_guard &) = delete;
    echo_guard &operator=(const echo_guard &) = delete;

private:
    bool is_terminal_ = false;
    termios before_{};
};

bool ask_password(prompt_answer &answer)
{
    const echo_guard guard;
    return answer.ask("Password: ");
}

// Sends passwords until one is taken: the reply's code.
int32_t send_passwords(kestal_ftp_t &ftp, const char *password, prompt_answer &answer)
{
    for (int32_t attempts = 1;; ++attempts) {
        const int32_t code = kestal_ftp_pass(&ftp, password);
        if (code != code_refused || ftp.m_ask_password == 0)
            return code;
        if (ftp.m_password_attempts != -1 && attempts >= ftp.m_password_attempts)
            return code;
        if (!ask_password(answer))
            return -1;
        password = answer.get();
    }
}

// Picks the password and sends it.
bool authenticate(kestal_ftp_t &ftp, const char *user, const char *password)
{
    const char *encoded = password == nullptr ? ftp.m_uri->m_password : nullptr;
    const secret_text decoded(kestal_decode_percent_string(encoded));
    if (encoded != nullptr && decoded.get() == nullptr)
        return false;
    prompt_answer answer;
    if (password == nullptr)
        password = decoded.get();
    if (password == nullptr && ftp.m_ask_password != 0 && strcmp(user, anonymous_user) != 0) {
        if (!ask_password(answer))
            return false;
        password = answer.get();
    }
    if (password == nullptr)
        password = anonymous_password;
    return send_passwords(ftp, password, answer) == code_logged_in;
}

bool log_in(kestal_ftp_t &ftp, const char *user, const char *password)
{
    const char *encoded = kestal::is_empty(user) && !kestal::is_empty(ftp.m_uri->m_user) ? ftp.m_uri->m_user : nullptr;
    const secret_text decoded(kestal_decode_percent_string(encoded));
    if (encoded != nullptr && decoded.get() == nullptr)
        return false;
    prompt_answer answer;
    if (kestal::is_empty(user))
        user = decoded.get();
    if (user == nullptr && ftp.m_ask_user != 0) {
        if (!answer.ask("Username: "))
            return false;
        user = answer.get();
    }
    if (user == nullptr)
        user = anonymous_user;
    const int32_t code = kestal_ftp_user(&ftp, user);
    return code == code_logged_in || (code == code_need_password && authenticate(ftp, user, password));
}

} // namespace

int32_t kestal_ftp_login(kestal_ftp_t *ftp, const char *user, const char *password, const char *type)
{
    if (ftp == nullptr || ftp->m_uri == nullptr)
        return kestal::fail_with(ENOTCONN);
    if (!log_in(*ftp, user, password))
        return -1;
    // Whatever the server thinks of the type, the session stands.
    return kestal_ftp_type(ftp, type == nullptr ? image_type : type) == -1 ? -1 : 0;
}
