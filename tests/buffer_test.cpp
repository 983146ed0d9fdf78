#include "support.hpp"

#include <condition_variable>
#include <cstring>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using kestal_test::caught_assertions;
using kestal_test::counted;
using kestal_test::failing_allocation;
using kestal_test::temporary_directory;
using kestal_test::with_each_allocation_failing;

namespace {

// What was wiped, as it stood before.
std::vector<std::string> wiped;

} // namespace

// In the C runtime's place, so that a test sees which memory is wiped before it is freed.
void explicit_bzero(void *memory, size_t size) noexcept
{
    wiped.emplace_back(static_cast<char *>(memory), size);
    std::memset(memory, 0, size);
}

namespace {

class buffer : public counted {};

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
        std::string bytes(std::min(length, kestal_get_buffer_size(get) + 1), '\0');
        bytes.resize(kestal_pop_buffer_ex(get, bytes.data(), length, exact));
        return bytes;
    }
    std::string peek(uint64_t length, uint64_t offset, int32_t exact = 0) const
    {
        std::string bytes(kestal_get_buffer_size(get) + 1, '\0');
        bytes.resize(kestal_peek_buffer_ex(get, bytes.data(), length, offset, exact));
        return bytes;
    }
    void pop_lines(std::vector<std::string> &lines)
    {
        while (char *line = kestal_pop_buffer_line(get)) {
            lines.emplace_back(line);
            kestal_free(line);
        }
    }
    // Capacity and fill of every node.
    std::vector<std::pair<uint64_t, uint64_t>> nodes() const
    {
        std::vector<std::pair<uint64_t, uint64_t>> result;
        for (const kestal_buffer_node_t *node = get->m_head; node != nullptr; node = node->m_next)
            result.emplace_back(node->m_capacity, node->m_fill);
        return result;
    }
};

std::string owned(void *block, uint64_t length)
{
    const std::string bytes(static_cast<char *>(block), block == nullptr ? 0 : length);
    kestal_check_free(block);
    return bytes;
}

using sizes = std::vector<std::pair<uint64_t, uint64_t>>;

TEST_F(buffer, fills_nodes)
{
    queue plain;
    EXPECT_EQ(plain.push(std::string(10, 'a')), 10u);
    EXPECT_EQ(plain.nodes(), (sizes{{4096, 10}}));
    EXPECT_EQ(plain.push(std::string(5000, 'b')), 5000u);
    EXPECT_EQ(plain.nodes(), (sizes{{4096, 4096}, {4096, 914}}));
    EXPECT_EQ(plain.push(std::string(9000, 'c'), KESTAL_BUFFER_EXACT), 9000u);
    EXPECT_EQ(plain.nodes(), (sizes{{4096, 4096}, {4096, 4096}, {5818, 5818}}));
    EXPECT_EQ(kestal_push_buffer_ex(plain.get, nullptr, 2, KESTAL_BUFFER_ADOPT), 2u);
    EXPECT_EQ(plain.peek(3, 14009), std::string("c\0\0", 3));
    EXPECT_EQ(plain.pop(),
              std::string(10, 'a') + std::string(5000, 'b') + std::string(9000, 'c') + std::string(2, '\0'));

    queue exact(KESTAL_BUFFER_EXACT);
    exact.push("abc");
    exact.push("de");
    EXPECT_EQ(exact.nodes(), (sizes{{3, 3}, {2, 2}}));
    EXPECT_EQ(exact.get->m_head->m_flags, KESTAL_BUFFER_EXACT);
    EXPECT_EQ(exact.push(""), 0u);
    EXPECT_EQ(kestal_push_buffer_ex(exact.get, nullptr, UINT64_MAX - 8, 0), 0u);
    EXPECT_EQ(kestal_push_buffer_ex(nullptr, "a", 1, 0), 0u);
}

TEST_F(buffer, refers_adopts_and_wipes)
{
    wiped.clear();
    static const char constant[] = "constant";
    queue secret(KESTAL_BUFFER_WIPE);
    secret.push("copied");
    EXPECT_EQ(kestal_push_buffer_ex(secret.get, constant, 8, KESTAL_BUFFER_REFERENCE), 8u);
    EXPECT_EQ(secret.get->m_tail->m_data, constant);
    char *block = kestal_strdup("adopted");
    EXPECT_EQ(kestal_push_buffer_ex(secret.get, block, 7, KESTAL_BUFFER_ADOPT | KESTAL_BUFFER_REFERENCE), 7u);
    secret.push("!");
    EXPECT_EQ(secret.nodes(), (sizes{{4096, 6}, {8, 8}, {7, 7}, {4096, 1}}));
    EXPECT_EQ(secret.pop(8), "copiedco");
    EXPECT_EQ(wiped, std::vector<std::string>{"copied"});
    EXPECT_EQ(kestal_flush_buffer(secret.get), 14u);
    EXPECT_EQ(wiped, (std::vector<std::string>{"copied", "adopted", "!"}));
    EXPECT_EQ(kestal_get_buffer_offset(secret.get), 22u);

    // Only a whole, untouched block is handed over as it is, and then it is not wiped.
    queue adopting(KESTAL_BUFFER_ADOPT | KESTAL_BUFFER_WIPE);
    char *blocks[2] = {kestal_strdup("first"), kestal_strdup("second")};
    kestal_push_buffer_ex(adopting.get, blocks[0], 5, 0);
    kestal_push_buffer_ex(adopting.get, blocks[1], 6, 0);
    EXPECT_EQ(kestal_push_buffer_ex(adopting.get, blocks[1], 0, 0), 0u);
    EXPECT_EQ(kestal_alloc_pop_buffer_ex(adopting.get, 5, 1), blocks[0]);
    EXPECT_EQ(owned(blocks[0], 5), "first");
    EXPECT_EQ(owned(kestal_alloc_pop_buffer_ex(adopting.get, 1, 0), 1), "s");
    uint64_t length = 0;
    void *rest = kestal_get_buffer_node(adopting.get, &length);
    EXPECT_NE(rest, blocks[1]);
    EXPECT_EQ(owned(rest, length), "econd");
    EXPECT_EQ(wiped.back(), "second");
    EXPECT_EQ(kestal_get_buffer_node(adopting.get, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(kestal_get_buffer_offset(adopting.get), 11u);
}

TEST_F(buffer, pops_and_peeks_exactly_when_asked)
{
    queue bytes(KESTAL_BUFFER_EXACT);
    for (const char *piece : {"ab", "cde", "f"})
        EXPECT_EQ(kestal_push_puts_ex(bytes.get, piece, 0), std::strlen(piece));
    EXPECT_EQ(bytes.peek(3, 1), "bcd");
    EXPECT_EQ(bytes.peek(9, 4), "ef");
    EXPECT_EQ(bytes.peek(2, 4, 1), "ef");
    EXPECT_EQ(bytes.peek(3, 4, 1), "");
    EXPECT_EQ(bytes.peek(UINT64_MAX, 1, 1), "");
    EXPECT_EQ(bytes.peek(1, 6), "");
    EXPECT_EQ(bytes.peek(1, UINT64_MAX), "");
    EXPECT_EQ(kestal_peek_buffer_uint8(bytes.get, 5), 'f');
    EXPECT_EQ(kestal_peek_buffer_uint8(bytes.get, 6), -1);
    EXPECT_EQ(bytes.pop(7, 1), "");
    EXPECT_EQ(kestal_alloc_pop_buffer_ex(bytes.get, 7, 1), nullptr);
    EXPECT_EQ(bytes.pop(3, 1), "abc");
    EXPECT_EQ(kestal_pop_buffer_uint8(bytes.get), 'd');
    EXPECT_EQ(kestal_pop_buffer_uint8(bytes.get), 'e');
    EXPECT_EQ(kestal_set_buffer_offset(bytes.get, 100), 100u);
    EXPECT_EQ(bytes.pop(9), "f");
    EXPECT_EQ(kestal_get_buffer_offset(bytes.get), 101u);
    EXPECT_EQ(kestal_pop_buffer_uint8(bytes.get), -1);
    EXPECT_EQ(bytes.nodes(), sizes{});

    EXPECT_EQ(kestal_push_puts_ex(bytes.get, nullptr, 0), 0u);
    EXPECT_EQ(kestal_pop_buffer_ex(nullptr, nullptr, 1, 0), 0u);
    EXPECT_EQ(kestal_peek_buffer_ex(nullptr, nullptr, 1, 0, 0), 0u);
    EXPECT_EQ(kestal_alloc_pop_buffer_ex(nullptr, 1, 0), nullptr);
    EXPECT_EQ(kestal_get_buffer_node(nullptr, nullptr), nullptr);
    EXPECT_EQ(kestal_pop_buffer_uint8(nullptr), -1);
    EXPECT_EQ(kestal_peek_buffer_uint8(nullptr, 0), -1);
    EXPECT_EQ(kestal_pop_buffer_line(nullptr), nullptr);
    EXPECT_EQ(kestal_flush_buffer(nullptr), 0u);
    EXPECT_EQ(kestal_get_buffer_size(nullptr), 0u);
    EXPECT_EQ(kestal_set_buffer_offset(nullptr, 1), 0u);
    EXPECT_EQ(kestal_get_buffer_offset(nullptr), 0u);
    EXPECT_EQ(kestal_end_buffer(nullptr), -1);
    EXPECT_EQ(kestal_close_buffer(nullptr), nullptr);
    EXPECT_EQ(kestal_push_printf(nullptr, "x"), 0u);
}

// Random pushes, pops and peeks beside a plain string.
TEST_F(buffer, behaves_as_a_string_of_bytes)
{
    std::mt19937 random(7);
    queue bytes;
    std::string model;
    for (int turn = 0; turn < 20000; ++turn) {
        const uint64_t length = random() % (random() % 8 == 0 ? 9000 : 40);
        const std::string piece(length, static_cast<char>('a' + turn % 26));
        switch (random() % 6) {
        case 0:
        case 1:
            bytes.push(piece, random() % 2 != 0 ? KESTAL_BUFFER_EXACT : 0);
            model += piece;
            break;
        case 2:
            if (void *block = length == 0 ? nullptr : kestal_strdup(piece.c_str()))
                kestal_push_buffer_ex(bytes.get, block, length, KESTAL_BUFFER_ADOPT);
            model += piece;
            break;
        case 3: {
            const uint64_t offset = random() % 9000;
            EXPECT_EQ(bytes.peek(length, offset), offset < model.size() ? model.substr(offset, length) : "");
            break;
        }
        default:
            EXPECT_EQ(bytes.pop(2 * length), model.substr(0, 2 * length));
            model.erase(0, 2 * length);
        }
        ASSERT_EQ(kestal_get_buffer_size(bytes.get), model.size());
    }
}

TEST_F(buffer, lines_are_the_same_however_they_arrive)
{
    const struct {
        std::string bytes;
        std::vector<std::string> lines;
        std::string rest;
    } cases[] = {
        {"a\r\nb\n", {"a", "b"}, ""},
        {"a\r\rb\n", {"a", "", "b"}, ""},
        {"x\n\ny\n", {"x", "", "y"}, ""},
        {"a\n\rb\r\n\r\n", {"a", "b", ""}, ""},
        {"\r\n\n\r\r\n", {"", "", ""}, ""},
        {"a\n\n\r\nb", {"a", "", ""}, "b"},
        {"tail", {}, "tail"},
        {"\xB0\n", {}, "\xB0\n"},
        {"\xB0\nx\n", {"\xB0\nx"}, ""},
        {"\xB0\xA1\r\n\xB0\xA1\xB0\n.\r\n\xB0", {"\xB0\xA1", "\xB0\xA1\xB0\n."}, "\xB0"},
        {"\x80\x80\n\x80\r\r", {"\x80\x80", "\x80\r"}, ""},
        {"0123456\n01234567\r\n012345678\xFF\n90123456\r", {"0123456", "01234567", "012345678\xFF\n90123456"}, ""},
    };
    for (const auto &item : cases) {
        const size_t length = item.bytes.size();
        for (size_t split = 0; split <= length; ++split)
            for (const size_t step : {size_t{1}, split, length})
                for (const uint32_t flags : {0u, KESTAL_BUFFER_EXACT}) {
                    queue text(flags);
                    std::vector<std::string> lines;
                    text.push(item.bytes.substr(0, split));
                    for (size_t at = split; at < length; at += std::max(step, size_t{1})) {
                        text.pop_lines(lines);
                        text.push(item.bytes.substr(at, std::max(step, size_t{1})));
                    }
                    text.pop_lines(lines);
                    EXPECT_EQ(lines, item.lines) << split << "/" << step;
                    EXPECT_EQ(text.pop(), item.rest) << split << "/" << step;
                }
    }
}

TEST_F(buffer, line_state_outlives_calls_but_not_the_end)
{
    queue text;
    std::vector<std::string> lines;
    text.push("a\r");
    text.pop_lines(lines);
    EXPECT_EQ(text.get->m_flags, KESTAL_BUFFER_CR);
    text.push("\n");
    EXPECT_EQ(kestal_pop_buffer_line(text.get), nullptr);
    EXPECT_EQ(kestal_get_buffer_offset(text.get), 3u);
    EXPECT_EQ(text.get->m_flags, 0u);
    text.push("b\n");
    text.pop_lines(lines);
    EXPECT_EQ(text.get->m_flags, KESTAL_BUFFER_LF);
    EXPECT_EQ(kestal_end_buffer(text.get), 0);
    EXPECT_EQ(text.get->m_flags, KESTAL_BUFFER_ENDED);
    text.push("\rtail");
    text.pop_lines(lines);
    EXPECT_EQ(lines, (std::vector<std::string>{"a", "b", ""}));
    EXPECT_EQ(text.pop(), "tail");

    // A pop of other bytes begins the search anew.
    text.push("abc\xB0");
    text.pop_lines(lines);
    EXPECT_EQ(text.pop(4), "abc\xB0");
    text.push("\nd\n");
    lines.clear();
    text.pop_lines(lines);
    EXPECT_EQ(lines, (std::vector<std::string>{"", "d"}));
}

TEST_F(buffer, formats_bytes_of_its_own)
{
    queue plain, referring(KESTAL_BUFFER_REFERENCE);
    for (queue *target : {&plain, &referring}) {
        EXPECT_EQ(kestal_push_printf(target->get, "%s=%d;", "x", 42), 5u);
        EXPECT_EQ(kestal_push_printf(target->get, "%s", ""), 0u);
        EXPECT_EQ(kestal_push_printf(target->get, "%05u", 7u), 5u);
        EXPECT_EQ(target->pop(), "x=42;00007");
    }
}

TEST_F(buffer, loads_files)
{
    const temporary_directory directory;
    std::string content(10000, '\0');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 7 % 251);
    const std::string three = directory.file("three", "abc"), empty = directory.file("empty", ""),
                      large = directory.file("large", content), missing = directory.path("missing");

    uint64_t length = 9;
    EXPECT_EQ(owned(kestal_load_file(three.c_str(), 0, 0, &length), 3), "abc");
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(owned(kestal_load_file(three.c_str(), 1, 1, nullptr), 1), "b");
    for (const std::string *path : {&empty, &missing}) {
        EXPECT_EQ(kestal_load_file(path->c_str(), 0, 0, &length), nullptr);
        EXPECT_EQ(length, 0u);
    }
    EXPECT_EQ(kestal_load_file(nullptr, 0, 0, nullptr), nullptr);

    const struct {
        int64_t start;
        uint64_t maximum, from, count;
    } cases[] = {{0, 0, 0, 10000},   {0, 4096, 0, 4096}, {5, 8192, 5, 8192},
                 {-20, 0, 9980, 20}, {-20, 7, 9980, 7},  {10000, 0, 0, 0}};
    for (const auto &item : cases) {
        queue referring(KESTAL_BUFFER_REFERENCE); // the bytes must be the queue's own all the same
        EXPECT_EQ(kestal_push_buffer_from_file(referring.get, large.c_str(), item.start, item.maximum),
                  static_cast<int32_t>(item.count));
        EXPECT_EQ(referring.pop(), content.substr(item.from, item.count));
    }
    queue target;
    EXPECT_EQ(kestal_push_buffer_from_file(target.get, missing.c_str(), 0, 0), -1);
    EXPECT_EQ(kestal_push_buffer_from_file(nullptr, three.c_str(), 0, 0), -1);
    EXPECT_EQ(kestal_push_buffer_from_file(target.get, three.c_str(), -4, 0), -1);

    const caught_assertions caught;
    {
        const failing_allocation second_node(2);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), 0, 0), 4096);
    }
    EXPECT_EQ(caught.messages(), std::vector<std::string>{"s_unit_size == ((size_t)s_read_bytes)"});
}

TEST_F(buffer, short_memory_loses_nothing)
{
    EXPECT_GT(with_each_allocation_failing([] {
                  queue bytes;
                  uint64_t queued = bytes.push("one\ntwo");
                  queued += bytes.push(std::string(5000, 'x'));
                  char *adopted = kestal_strdup("adopted");
                  if (adopted != nullptr && kestal_push_buffer_ex(bytes.get, adopted, 7, KESTAL_BUFFER_ADOPT) == 0)
                      kestal_free(adopted);
                  else if (adopted != nullptr)
                      queued += 7;
                  queued += kestal_push_printf(bytes.get, "%d", 5);
                  EXPECT_EQ(kestal_get_buffer_size(bytes.get), queued);
                  for (int attempt = 0; attempt < 2; ++attempt)
                      if (char *line = kestal_pop_buffer_line(bytes.get)) {
                          EXPECT_STREQ(line, "one");
                          kestal_free(line);
                          queued -= 4;
                      }
                  if (void *block = kestal_alloc_pop_buffer_ex(bytes.get, 9, 1)) {
                      kestal_free(block);
                      queued -= 9;
                  }
                  EXPECT_EQ(kestal_get_buffer_size(bytes.get), queued);
              }),
              7u);
    EXPECT_GT(with_each_allocation_failing([] {
                  kestal_close_buffer(kestal_open_buffer_ex2(
                      0, [](auto...) {}, nullptr));
              }),
              1u);
}

// What a handler has received, in order.
struct receiver {
    std::mutex mutex;
    std::condition_variable changed;
    std::string bytes;
    bool consistent = true;
    bool blocked = false;

    static void handle(void *context, void *block, uint64_t length, uint64_t offset, uint64_t)
    {
        receiver &self = *static_cast<receiver *>(context);
        std::unique_lock hold(self.mutex);
        self.consistent = self.consistent && offset == self.bytes.size();
        self.bytes.append(static_cast<char *>(block), length);
        self.changed.notify_all();
        self.changed.wait(hold, [&] { return !self.blocked; });
    }
    void wait_for(size_t size)
    {
        std::unique_lock hold(mutex);
        changed.wait(hold, [&] { return bytes.size() >= size; });
    }
};

TEST_F(buffer, handler_receives_what_many_threads_push)
{
    receiver got;
    kestal_buffer_t *shared = kestal_open_buffer_ex2(0, receiver::handle, &got);
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->m_flags, KESTAL_BUFFER_EXACT);
    constexpr size_t threads = 4, pieces = 200;
    std::vector<std::thread> producers;
    for (size_t t = 0; t < threads; ++t)
        producers.emplace_back([shared, t] {
            for (size_t i = 0; i < pieces; ++i) {
                const std::string piece(1 + i % 7, static_cast<char>('a' + t));
                if (i % 2 == 0)
                    EXPECT_EQ(kestal_push_puts_ex(shared, piece.c_str(), 0), piece.size());
                else
                    EXPECT_EQ(kestal_push_printf(shared, "%s", piece.c_str()), piece.size());
            }
        });
    size_t expected = 0;
    for (size_t i = 0; i < pieces; ++i)
        expected += threads * (1 + i % 7);
    for (std::thread &producer : producers)
        producer.join();
    got.wait_for(expected);

    // While the handler is busy, pushes go on; what it has not seen is dropped with the buffer.
    {
        const std::lock_guard hold(got.mutex);
        got.blocked = true;
    }
    EXPECT_EQ(kestal_push_puts_ex(shared, "!", 0), 1u);
    got.wait_for(expected + 1);
    EXPECT_EQ(kestal_push_puts_ex(shared, "?", 0), 1u);
    EXPECT_EQ(kestal_end_buffer(shared), 0);
    {
        const std::lock_guard hold(got.mutex);
        got.blocked = false;
    }
    got.changed.notify_all();
    got.wait_for(expected + 2);
    EXPECT_EQ(kestal_close_buffer(shared), nullptr);
    EXPECT_TRUE(got.consistent);
    for (size_t t = 0; t < threads; ++t)
        EXPECT_EQ(static_cast<size_t>(std::count(got.bytes.begin(), got.bytes.end(), static_cast<char>('a' + t))),
                  expected / threads);
}

} // namespace
