#include "support.hpp"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <random>
#include <thread>

using kestal_test::counted;
using kestal_test::with_each_allocation_failing;
using sizes = std::vector<std::pair<uint64_t, uint64_t>>;

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
        std::string bytes(kestal_get_buffer_size(get), '\0');
        bytes.resize(kestal_pop_buffer_ex(get, bytes.data(), length, exact));
        return bytes;
    }
    void pop_lines(std::vector<std::string> &lines)
    {
        while (char *line = kestal_pop_buffer_line(get)) {
            lines.emplace_back(line);
            kestal_free(line);
        }
    }
    sizes nodes() const // capacity and fill
    {
        sizes result;
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

TEST_F(buffer, fills_nodes)
{
    queue plain;
    plain.push(std::string(10, 'a'));
    EXPECT_EQ(plain.nodes(), (sizes{{4096, 10}}));
    EXPECT_EQ(plain.push(std::string(5000, 'b')), 5000u);
    EXPECT_EQ(plain.nodes(), (sizes{{4096, 4096}, {4096, 914}}));
    EXPECT_EQ(plain.push(std::string(4000, 'c'), KESTAL_BUFFER_EXACT), 4000u);
    EXPECT_EQ(plain.nodes(), (sizes{{4096, 4096}, {4096, 4096}, {818, 818}}));
    EXPECT_EQ(kestal_push_buffer_ex(plain.get, nullptr, 2, KESTAL_BUFFER_REFERENCE), 2u);
    EXPECT_EQ(plain.pop(9009), std::string(10, 'a') + std::string(5000, 'b') + std::string(3999, 'c'));
    EXPECT_EQ(plain.pop(), std::string("c\0\0", 3));
    EXPECT_EQ(plain.push(""), 0u);
    EXPECT_EQ(kestal_push_buffer_ex(plain.get, nullptr, UINT64_MAX - 8, 0), 0u);
    EXPECT_EQ(plain.nodes(), sizes{});
}

TEST_F(buffer, refers_adopts_and_wipes)
{
    wiped.clear();
    static const char constant[] = "constant";
    queue secret(KESTAL_BUFFER_WIPE);
    secret.push("copied");
    kestal_push_buffer_ex(secret.get, constant, 8, KESTAL_BUFFER_REFERENCE);
    EXPECT_EQ(secret.get->m_tail->m_data, constant);
    kestal_push_buffer_ex(secret.get, kestal_strdup("adopted"), 7, KESTAL_BUFFER_ADOPT | KESTAL_BUFFER_REFERENCE);
    secret.push("!");
    EXPECT_EQ(secret.nodes(), (sizes{{4096, 6}, {8, 8}, {7, 7}, {4096, 1}}));
    EXPECT_EQ(kestal_flush_buffer(secret.get), 22u);
    EXPECT_EQ(wiped, (std::vector<std::string>{"copied", "adopted", "!"}));

    // Only a whole, untouched block is handed over as it is, and then it is not wiped.
    queue adopting(KESTAL_BUFFER_ADOPT | KESTAL_BUFFER_WIPE);
    char *blocks[2] = {kestal_strdup("first"), kestal_strdup("second")};
    kestal_push_puts_ex(adopting.get, blocks[0], 0);
    kestal_push_puts_ex(adopting.get, blocks[1], 0);
    EXPECT_EQ(kestal_alloc_pop_buffer_ex(adopting.get, 12, 1), nullptr);
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
}

// Random pushes, pops and peeks beside a plain string.
TEST_F(buffer, behaves_as_a_string_of_bytes)
{
    std::mt19937 random(7);
    queue bytes;
    std::string model;
    uint64_t popped = kestal_set_buffer_offset(bytes.get, 1000);
    for (int turn = 0; turn < 20000; ++turn) {
        const uint64_t length = 1 + random() % (random() % 8 == 0 ? 9000 : 40), offset = random() % 9000;
        const uint64_t queued = model.size(), present = offset < queued ? queued - offset : 0;
        const int32_t exact = random() % 2 == 0 ? 1 : 0;
        std::string piece(length, static_cast<char>('a' + turn % 26)), taken;
        switch (random() % 5) {
        case 0:
            kestal_push_buffer_ex(bytes.get, kestal_strdup(piece.c_str()), length, KESTAL_BUFFER_ADOPT);
            model += piece;
            break;
        case 1:
            bytes.push(piece, exact != 0 ? KESTAL_BUFFER_EXACT : 0);
            model += piece;
            break;
        case 2:
            taken = bytes.pop(length, exact);
            EXPECT_EQ(taken, exact != 0 && length > queued ? "" : model.substr(0, length));
            break;
        case 3:
            piece.resize(kestal_peek_buffer_ex(bytes.get, piece.data(), length, offset, exact));
            EXPECT_EQ(piece, present == 0 || (exact != 0 && length > present) ? "" : model.substr(offset, length));
            EXPECT_EQ(kestal_peek_buffer_uint8(bytes.get, offset), present == 0 ? -1 : model[offset]);
            break;
        default:
            EXPECT_EQ(kestal_pop_buffer_uint8(bytes.get), queued == 0 ? -1 : model[0]);
            taken = model.substr(0, 1);
        }
        model.erase(0, taken.size());
        popped += taken.size();
        ASSERT_EQ(kestal_get_buffer_size(bytes.get), model.size());
        ASSERT_EQ(kestal_get_buffer_offset(bytes.get), popped);
    }
    EXPECT_EQ(kestal_peek_buffer_ex(bytes.get, &popped, UINT64_MAX, 1, 1), 0u);
    EXPECT_EQ(kestal_pop_buffer_uint8(nullptr), -1);
    EXPECT_EQ(kestal_flush_buffer(nullptr), 0u);
    EXPECT_EQ(kestal_get_buffer_node(nullptr, nullptr), nullptr);
}

TEST_F(buffer, lines_are_the_same_however_they_arrive)
{
    const struct {
        std::string bytes;
        std::vector<std::string> lines;
        std::string rest;
    } cases[] = {
        {"a\r\nb\n", {"a", "b"}, ""},
        {"a\r\rb\nx\n\ny\n", {"a", "", "b", "x", "", "y"}, ""},
        {"a\n\rb\r\n\r\n\n\r\rtail", {"a", "b", "", "", ""}, "tail"},
        {"a\n\n\r\nb", {"a", "", ""}, "b"},
        {"\xB0\n", {}, "\xB0\n"},
        {"\xB0\xA1\r\n\xB0\xA1\xB0\n.\r\n\xB0", {"\xB0\xA1", "\xB0\xA1\xB0\n."}, "\xB0"},
        {"\x80\x80\n\x80\r\r", {"\x80\x80", "\x80\r"}, ""},
        {"01234567\r\n012345678\xFF\n90123456\r", {"01234567", "012345678\xFF\n90123456"}, ""},
    };
    for (const auto &item : cases)
        for (size_t step = 1; step <= item.bytes.size(); ++step)
            for (size_t first = 0; first <= step; ++first)
                for (const uint32_t flags : {0u, KESTAL_BUFFER_EXACT}) {
                    queue text(flags);
                    std::vector<std::string> lines;
                    text.push(item.bytes.substr(0, first));
                    for (size_t at = first; at < item.bytes.size(); at += step) {
                        text.pop_lines(lines);
                        text.push(item.bytes.substr(at, step));
                    }
                    text.pop_lines(lines);
                    EXPECT_EQ(lines, item.lines) << first << "+" << step;
                    EXPECT_EQ(text.pop(), item.rest) << first << "+" << step;
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
    text.pop_lines(lines);
    EXPECT_EQ(kestal_get_buffer_offset(text.get), 3u);
    EXPECT_EQ(text.get->m_flags, 0u);
    text.push("b\n");
    text.pop_lines(lines);
    EXPECT_EQ(kestal_end_buffer(text.get), 0);
    EXPECT_EQ(text.get->m_flags, KESTAL_BUFFER_ENDED);
    text.push("\rtail\xB0");
    text.pop_lines(lines);
    EXPECT_EQ(text.pop(), "tail\xB0");
    text.push("\nc\n"); // a pop of other bytes has begun the search anew
    text.pop_lines(lines);
    EXPECT_EQ(lines, (std::vector<std::string>{"a", "b", "", "", "c"}));
}

TEST_F(buffer, formats_and_loads_files_into_memory_of_its_own)
{
    const kestal_test::temporary_directory directory;
    std::string content(10000, '\0');
    std::generate(content.begin(), content.end(), [value = 0]() mutable { return static_cast<char>(value += 7); });
    const std::string large = directory.file("large", content), three = directory.file("three", "abc"),
                      empty = directory.file("empty", ""), missing = directory.path("missing");
    for (const uint32_t flags : {0u, KESTAL_BUFFER_REFERENCE, KESTAL_BUFFER_ADOPT}) {
        queue target(flags);
        EXPECT_EQ(kestal_push_printf(target.get, "%s=%d;", "x", 42), 5u);
        EXPECT_EQ(kestal_push_printf(target.get, "%s", ""), 0u);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), 5, 8192), 8192);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), -20, 7), 7);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), 10000, 0), 0);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, three.c_str(), -4, 0), -1);
        EXPECT_EQ(kestal_push_buffer_from_file(target.get, missing.c_str(), 0, 0), -1);
        EXPECT_EQ(target.pop(), "x=42;" + content.substr(5, 8192) + content.substr(9980, 7));
    }
    uint64_t length = 9;
    EXPECT_EQ(owned(kestal_load_file(large.c_str(), 0, 0, &length), 10000), content);
    EXPECT_EQ(owned(kestal_load_file(three.c_str(), 0, 0, &length), 3), "abc");
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(kestal_load_file(empty.c_str(), 0, 0, &length), nullptr);
    EXPECT_EQ(length, 0u);

    queue target;
    const kestal_test::caught_assertions caught;
    const kestal_test::failing_allocation second_node(2);
    EXPECT_EQ(kestal_push_buffer_from_file(target.get, large.c_str(), 0, 0), 4096);
    EXPECT_EQ(caught.messages(), std::vector<std::string>{"s_unit_size == ((size_t)s_read_bytes)"});
}

TEST_F(buffer, short_memory_loses_nothing)
{
    EXPECT_GT(with_each_allocation_failing([] {
                  queue bytes;
                  uint64_t queued = bytes.push("one\ntwo") + bytes.push(std::string(5000, 'x'));
                  char *block = kestal_strdup("adopted");
                  const uint64_t taken = block == nullptr ? 0 : kestal_push_buffer_ex(bytes.get, block, 7, 4);
                  if (taken == 0)
                      kestal_check_free(block);
                  queued += taken + kestal_push_printf(bytes.get, "%d", 5);
                  queued -= owned(kestal_pop_buffer_line(bytes.get), 4).size();
                  queued -= owned(kestal_pop_buffer_line(bytes.get), 4).size();
                  queued -= owned(kestal_alloc_pop_buffer_ex(bytes.get, 9, 1), 9).size();
                  EXPECT_EQ(kestal_get_buffer_size(bytes.get), queued);
              }),
              7u);
    const auto ignore = [](void *, void *, uint64_t, uint64_t, uint64_t) {};
    EXPECT_GT(with_each_allocation_failing([&] { kestal_close_buffer(kestal_open_buffer_ex2(0, ignore, nullptr)); }),
              1u);
}

// What a handler has received, in order.
struct receiver {
    std::mutex mutex;
    std::condition_variable changed;
    std::string bytes;
    bool is_consistent = true;

    static void handle(void *context, void *block, uint64_t length, uint64_t offset, uint64_t)
    {
        receiver &self = *static_cast<receiver *>(context);
        const std::lock_guard hold(self.mutex);
        self.is_consistent = self.is_consistent && offset == self.bytes.size();
        self.bytes.append(static_cast<char *>(block), length);
        self.changed.notify_all();
    }
};

TEST_F(buffer, handler_receives_what_many_threads_push)
{
    receiver got;
    kestal_buffer_t *shared = kestal_open_buffer_ex2(0, receiver::handle, &got);
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->m_flags, KESTAL_BUFFER_EXACT);
    constexpr size_t pieces = 200;
    std::vector<std::thread> producers;
    for (const char letter : {'a', 'b', 'c', 'd'})
        producers.emplace_back([=] {
            for (size_t i = 0; i < pieces; ++i)
                EXPECT_EQ(i % 2 == 0 ? kestal_push_puts_ex(shared, std::string(3, letter).c_str(), 0)
                                     : kestal_push_printf(shared, "%c%c%c", letter, letter, letter),
                          3u);
        });
    for (std::thread &producer : producers)
        producer.join();
    EXPECT_EQ(kestal_end_buffer(shared), 0);
    std::unique_lock hold(got.mutex); // a busy handler does not hold up those who push
    EXPECT_EQ(kestal_push_puts_ex(shared, "!", 0), 1u);
    got.changed.wait(hold, [&] { return got.bytes.size() == 4 * 3 * pieces + 1; });
    hold.unlock();
    EXPECT_EQ(kestal_close_buffer(shared), nullptr);
    EXPECT_TRUE(got.is_consistent);
    for (size_t at = 0; at + 3 < got.bytes.size(); at += 3)
        EXPECT_EQ(got.bytes.substr(at, 3), std::string(3, got.bytes[at]));
}

} // namespace
