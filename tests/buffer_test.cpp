#include "support.hpp"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <random>

using kestal_test::owned;
using kestal_test::with_each_allocation_failing;

namespace {

std::vector<std::string> wiped; // as it stood before

} // namespace

// In the C runtime's place, so that a test sees which memory is wiped before it is freed.
void explicit_bzero(void *memory, size_t size) noexcept
{
    wiped.emplace_back(static_cast<char *>(memory), size);
    std::memset(memory, 0, size);
}

namespace {

class buffer : public kestal_test::counted {};

// A queue that closes itself.
struct queue {
    kestal_buffer_t *get;
    explicit queue(uint32_t flags = 0) : get(kestal_open_buffer_ex(flags)) {}
    ~queue() { kestal_close_buffer(get); }
    queue(const queue &) = delete;
    queue &operator=(const queue &) = delete;

    uint64_t push(const std::string &bytes, uint32_t flags = 0)
    {
        return kestal_push_buffer_ex(get, bytes.data(), bytes.size(), flags);
    }
    std::string pop(uint64_t length = UINT64_MAX, int32_t exact = 0)
    {
        std::string bytes(kestal_get_buffer_size(get), '\0');
        bytes.resize(kestal_pop_buffer_ex(get, bytes.data(), length, exact));
        return bytes;
    }
    // All whole lines, each with a "|" behind it.
    std::string pop_lines()
    {
        std::string lines;
        while (char *line = kestal_pop_buffer_line(get))
            lines += owned(line) + "|";
        return lines;
    }
    // "fill/capacity " of each.
    std::string nodes() const
    {
        std::string result;
        for (const kestal_buffer_node_t *node = get->m_head; node != nullptr; node = node->m_next)
            result += std::to_string(node->m_fill) + "/" + std::to_string(node->m_capacity) + " ";
        return result;
    }
};

TEST_F(buffer, refers_adopts_and_wipes)
{
    wiped.clear();
    static const char constant[] = "constant";
    queue plain;
    plain.push("plain,");
    plain.push("secret", KESTAL_BUFFER_WIPE);
    kestal_push_puts_ex(plain.get, constant, KESTAL_BUFFER_REFERENCE | KESTAL_BUFFER_WIPE);
    EXPECT_EQ(plain.get->m_tail->m_data, constant);
    kestal_push_puts_ex(plain.get, kestal_strdup("adopted"), KESTAL_BUFFER_ADOPT | KESTAL_BUFFER_REFERENCE);
    plain.push("!");
    plain.push(std::string(5000, 'x'), KESTAL_BUFFER_EXACT);
    EXPECT_EQ(plain.nodes(), "12/4096 8/8 7/7 4096/4096 905/905 ");
    EXPECT_EQ(kestal_flush_buffer(plain.get), 5028u);
    EXPECT_EQ(wiped, std::vector<std::string>{"plain,secret"});

    // Only a whole, untouched block is handed over as it is, and then it is not wiped.
    queue adopting(KESTAL_BUFFER_ADOPT | KESTAL_BUFFER_WIPE);
    char *first = kestal_strdup("first");
    for (char *block : {first, kestal_strdup("second"), kestal_strdup("x")})
        kestal_push_puts_ex(adopting.get, block, 0);
    EXPECT_EQ(kestal_alloc_pop_buffer_ex(adopting.get, 13, 1), nullptr);
    uint64_t length = 0;
    EXPECT_EQ(kestal_get_buffer_node(adopting.get, &length), first);
    EXPECT_EQ(owned(first, length), "first");
    EXPECT_EQ(owned(kestal_alloc_pop_buffer_ex(adopting.get, 1, 0), 1), "s");
    EXPECT_EQ(owned(kestal_alloc_pop_buffer_ex(adopting.get, 6, 1), 6), "econdx");
    EXPECT_EQ(wiped, (std::vector<std::string>{"plain,secret", "second", "x"}));
    EXPECT_EQ(kestal_get_buffer_node(adopting.get, &length), nullptr);
}

// Random pushes, pops and peeks beside a plain string, half of them without memory.
TEST_F(buffer, behaves_as_a_string_of_bytes)
{
    std::mt19937 random(7);
    queue bytes;
    std::string model;
    uint64_t popped = kestal_set_buffer_offset(bytes.get, 1000);
    for (int turn = 0; turn < 20000 && !HasFailure(); ++turn) {
        const uint64_t length = 1 + random() % (random() % 8 == 0 ? 9000 : 40);
        const uint64_t offset = random() % 2 != 0 || length > model.size() ? random() % 9000 : model.size() - length;
        const int32_t exact = random() % 2 == 0 ? 1 : 0;
        const auto asked_of = [&](std::string_view there) {
            return exact != 0 && length > there.size() ? "" : there.substr(0, length);
        };
        const auto behind = std::string_view(model).substr(std::min<size_t>(offset, model.size()));
        const auto action = random() % 6;
        std::string piece(length, static_cast<char>('a' + turn % 26)), taken;
        char *const block = action == 1 ? kestal_strdup(piece.c_str()) : nullptr;
        const kestal_test::failing_allocation failing(random() % 2); // 0: none fails
        if (action == 0) {
            model += piece.substr(0, bytes.push(piece, exact != 0 ? KESTAL_BUFFER_EXACT : 0));
        } else if (action == 1) {
            const bool adopted = kestal_push_puts_ex(bytes.get, block, KESTAL_BUFFER_ADOPT) == length;
            model += adopted ? piece : "";
            kestal_check_free(adopted ? nullptr : block);
        } else if (action == 2) {
            taken = bytes.pop(length, exact);
            EXPECT_EQ(taken, asked_of(model));
        } else if (action == 3) {
            piece.resize(kestal_peek_buffer_ex(bytes.get, piece.data(), length, offset, exact));
            EXPECT_EQ(piece, asked_of(behind));
            EXPECT_EQ(kestal_peek_buffer_uint8(bytes.get, offset), behind.empty() ? -1 : behind[0]);
        } else if (action == 4) {
            const std::string asked(asked_of(model));
            taken = owned(kestal_alloc_pop_buffer_ex(bytes.get, length, exact), asked.size());
            EXPECT_EQ(taken, failing.happened() ? "" : asked);
        } else {
            EXPECT_EQ(kestal_pop_buffer_uint8(bytes.get), model.empty() ? -1 : model[0]);
            taken = model.substr(0, 1);
        }
        model.erase(0, taken.size());
        popped += taken.size();
        EXPECT_TRUE(kestal_get_buffer_size(bytes.get) == model.size() && kestal_get_buffer_offset(bytes.get) == popped);
    }
    EXPECT_EQ(kestal_push_buffer_ex(bytes.get, nullptr, UINT64_MAX - 8, 0), 0u);
    EXPECT_EQ(kestal_peek_buffer_ex(bytes.get, &popped, UINT64_MAX, 1, 1), 0u);
    EXPECT_TRUE(kestal_pop_buffer_uint8(nullptr) == -1 && kestal_flush_buffer(nullptr) == 0);
}

TEST_F(buffer, lines_are_the_same_however_they_arrive)
{
    const struct {
        std::string bytes, lines, rest;
    } cases[] = {
        {"a\r\nb\n", "a|b|", ""},
        {"a\r\rb\nx\n\ny\n", "a||b|x||y|", ""},
        {"a\n\rb\r\n\r\n\n\r\rtail", "a|b||||", "tail"},
        {"\xB0\xA1\r\n\xB0\xA1\xB0\n.\r\n\xB0", "\xB0\xA1|\xB0\xA1\xB0\n.|", "\xB0"},
        {"\x80\x80\n\x80\r\r", "\x80\x80|\x80\r|", ""},
        {"01234567\r\n012345678\xFF\n90123456\r", "01234567|012345678\xFF\n90123456|", ""},
    };
    for (const auto &[bytes, expected, rest] : cases)
        for (size_t step = 1; step <= bytes.size(); ++step) {
            queue text(step % 2 == 0 ? 0 : KESTAL_BUFFER_EXACT);
            std::string lines;
            for (size_t at = 0; at < bytes.size(); at += step) {
                text.push(bytes.substr(at, step));
                lines += text.pop_lines();
            }
            EXPECT_EQ(lines + "&" + text.pop(), expected + "&" + rest) << "in steps of " << step;
        }
}

TEST_F(buffer, line_state_outlives_calls_but_not_the_end)
{
    queue text;
    text.push("b\n");
    EXPECT_EQ(text.pop_lines(), "b|");
    EXPECT_EQ(kestal_end_buffer(text.get), 0);
    EXPECT_EQ(text.get->m_flags, KESTAL_BUFFER_ENDED);
    text.push("\rtail\xB0");
    EXPECT_EQ(text.pop_lines(), "|");
    EXPECT_EQ(text.pop(), "tail\xB0");
    text.push("\nc\n"); // a pop of other bytes has begun the search anew
    EXPECT_EQ(text.pop_lines(), "|c|");
}

TEST_F(buffer, formats_and_loads_files_into_memory_of_its_own)
{
    const kestal_test::temporary_directory directory;
    const std::string content = kestal_test::noise(10000), large = directory.file("large", content);
    for (const uint32_t flags : {0u, KESTAL_BUFFER_REFERENCE, KESTAL_BUFFER_ADOPT}) {
        queue target(flags);
        EXPECT_EQ(kestal_push_printf(target.get, "%s=%d;", "x", 42), 5u);
        EXPECT_EQ(kestal_push_printf(target.get, "%s", ""), 0u);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), 5, 8192), 8192);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), -20, 7), 7);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), 10000, 0), 0);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), -10001, 0), -1);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, directory.path("missing").c_str(), 0, 0), -1);
        EXPECT_EQ(target.pop(), "x=42;" + content.substr(5, 8192) + content.substr(9980, 7));
    }
    uint64_t length = 9;
    EXPECT_EQ(owned(kestal_load_file(large.c_str(), 0, 0, &length), content.size()), content);
    EXPECT_EQ(length, content.size());
    queue target;
    const kestal_test::caught_assertions caught;
    const kestal_test::failing_allocation second_node(2);
    EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), 0, 0), 4096);
    EXPECT_EQ(caught.messages(), std::vector<std::string>{"s_unit_size == ((size_t)s_read_bytes)"});
}

TEST_F(buffer, handler_receives_what_many_threads_push)
{
    static std::mutex mutex;
    static std::condition_variable changed;
    static std::string received;
    const auto receive = [](void *context, void *block, uint64_t length, uint64_t offset, uint64_t) {
        const std::lock_guard hold(mutex);
        EXPECT_TRUE(context == &received && offset == received.size());
        received.append(static_cast<char *>(block), length);
        changed.notify_all();
    };
    received.clear();
    EXPECT_GT(with_each_allocation_failing([&] { kestal_close_buffer(kestal_open_buffer_ex2(0, receive, &received)); }),
              1u);
    kestal_buffer_t *shared = kestal_open_buffer_ex2(0, receive, &received);
    EXPECT_EQ(shared->m_flags, KESTAL_BUFFER_EXACT);
    constexpr size_t pieces = 200;
    kestal_test::on_threads(4, [&](size_t thread) {
        const std::string text(3, "abcd"[thread]);
        for (size_t i = 0; i < pieces; ++i)
            EXPECT_EQ(kestal_push_printf(shared, "%s", text.c_str()), 3u);
    });
    EXPECT_EQ(kestal_end_buffer(shared), 0);
    std::unique_lock hold(mutex); // a busy handler does not hold up those who push
    EXPECT_EQ(kestal_push_puts_ex(shared, "!", 0), 1u);
    changed.wait(hold, [] { return received.size() == 4 * 3 * pieces + 1; });
    hold.unlock();
    EXPECT_EQ(kestal_close_buffer(shared), nullptr);
    for (size_t at = 0; at + 3 < received.size(); at += 3)
        EXPECT_EQ(received.substr(at, 3), std::string(3, received[at]));
}

} // namespace
