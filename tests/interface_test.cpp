#include "plugins/probe.h"
#include "support.hpp"

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>

using kestal_test::caught_assertions;
using kestal_test::failing_allocation;
using kestal_test::with_each_allocation_failing;

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;

uint32_t last_error(uint32_t id)
{
    return static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id, nullptr))->m_last_error;
}

// A loaded plugin library whose hint list and table are the test's. It must outlive the contexts that it serves.
class loaded_probe {
public:
    loaded_probe(const char *name, const char *hint, const kestal_ctx0_v0_interface_t &table)
        : library_(kestal_open_dynamic_library(name, KESTAL_TEST_PLUGINS, KESTAL_DYNAMIC_LIBRARY_NOW))
    {
        probe_t *probe = static_cast<probe_t *>(kestal_import_dynamic_library(library_, "probe"));
        *probe = {};
        probe->m_hint = hint;
        probe->m_interface = &table;
        probe->m_interface_size = table.m_size;
        id_ = kestal_load_plugin_ex(name, KESTAL_TEST_PLUGINS, nullptr, nullptr);
    }
    ~loaded_probe()
    {
        kestal_unload_plugin(id_);
        kestal_close_dynamic_library(library_);
    }
    loaded_probe(const loaded_probe &) = delete;
    loaded_probe &operator=(const loaded_probe &) = delete;

    uint32_t id() const { return id_; }

private:
    void *library_;
    uint32_t id_;
};

kestal_ctx0_v0_interface_t new_table()
{
    kestal_ctx0_v0_interface_t table{};
    table.m_version = 1;
    table.m_size = sizeof(table);
    return table;
}

// What the operations below were called with, and what they answer.
std::string calls;
std::map<std::string, uint32_t> refusals; // plugin name: the last error it refuses with; absent: accepts

int32_t open_or_refuse(kestal_ctx_t *ctx)
{
    const std::string name = ctx->m_plugin->m_name;
    calls += name + " ";
    EXPECT_EQ(ctx->m_kind, -1);
    if (refusals.count(name) == 0)
        return 0;
    ctx->m_kind = 7;
    ctx->m_last_error = refusals[name];
    return -1;
}

class context : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        calls.clear();
        refusals.clear();
        id_ = kestal_new_ctx();
        ASSERT_NE(id_, none);
    }
    void TearDown() override
    {
        EXPECT_EQ(kestal_destroy_ctx(id_), none);
        EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), 0u);
        counted::TearDown();
    }

    uint32_t id_ = none;
};

TEST(mime_type_hint, matches_by_wildcard_word)
{
    const char *builtin = "application/ulx_base;application/ulx_stream*;application/ulx_fb|application/ulx_multicall*";
    const auto matches = [](const char *list, const char *type) { return kestal_compare_mime_type_hint(list, type); };
    for (const char *type : {"application/ulx_stream_tcp", "APPLICATION/ULX_FB", "application/ulx_multicall"})
        EXPECT_EQ(matches(builtin, type), 0) << type;
    for (const char *type : {"application/ulx_fb2", "xapplication/ulx_fb", ""})
        EXPECT_EQ(matches(builtin, type), -1) << type;
    EXPECT_EQ(matches(nullptr, "any/type") | matches(nullptr, nullptr), 0); // no list takes everything
    EXPECT_EQ(matches(";;||a/b;", "a/b") | matches("*", nullptr), 0);
    EXPECT_EQ(matches(";|", "") & matches("", ""), -1);
    EXPECT_EQ(kestal_compare_mime_type(nullptr, ""), 0);
    EXPECT_GT(kestal_compare_mime_type("a/b", "A/b"), 0);
}

TEST_F(context, keeps_options_in_order_and_replaces_the_first)
{
    const auto all = [this](const char *first) {
        std::string values;
        for (const kestal_ctx_option_t *o = kestal_ctx_get_option(id_, first); o != nullptr; o = o->m_next)
            values += std::string(static_cast<char *>(o->m_value), o->m_value_size) + " ";
        return values;
    };
    for (const auto &[name, value] : {std::pair("a", "1"), std::pair("a", "2"), std::pair("A", "3")})
        EXPECT_EQ(kestal_ctx_set_option_string(id_, 0, name, value), 0);
    EXPECT_EQ(all("a"), "1 2 3 ");
    EXPECT_EQ(kestal_ctx_set_option_string(id_, 1, "a", kestal_ctx_get_option_string(id_, "a")), 0); // its own value
    EXPECT_EQ(all("a"), "2 3 1 ");
    EXPECT_EQ(kestal_ctx_set_option_int_string(id_, 1, "a", INT32_MIN), 0);
    EXPECT_EQ(kestal_ctx_set_option(id_, 0, "", "x\0y", 3), 0);
    EXPECT_EQ(all("A"), std::string("3 1 -2147483648 x\0y ", 20));
    EXPECT_STREQ(static_cast<char *>(kestal_ctx_get_option(id_, nullptr)->m_value) + 2, "y"); // a NUL stands behind
    EXPECT_EQ(kestal_ctx_set_option(id_, UINT32_MAX, nullptr, nullptr, 2), 0);                // zeros, no longer x
    EXPECT_EQ(all(""), std::string("\0\0 ", 3));

    EXPECT_EQ(kestal_ctx_set_option_string(id_, 1, "empty", nullptr), 0);
    EXPECT_EQ(kestal_ctx_get_option(id_, "empty")->m_value, nullptr);
    EXPECT_STREQ(kestal_ctx_get_option_string_ex(id_, "empty", "default"), "default");
    EXPECT_EQ(kestal_ctx_get_option_string(id_, "absent"), nullptr);
    EXPECT_EQ(kestal_ctx_set_option_fstring(id_, 1, "f", "%d-%s", 5, "x"), 0);
    EXPECT_EQ(kestal_ctx_set_option_fstring(id_, 1, "f", "%70000d", 5), 0); // too long: said to be set, left alone
    EXPECT_EQ(kestal_ctx_set_option(id_, 1, "f", "x", UINT64_MAX), -1);
    EXPECT_EQ(last_error(id_), KESTAL_CTX_ERROR_NO_MEMORY);
    EXPECT_EQ(all("f"), "5-x ");
    EXPECT_EQ(last_error(id_), KESTAL_CTX_ERROR_NONE);

    EXPECT_EQ(kestal_ctx_set_option(id_, UINT32_MAX, nullptr, nullptr, 0), 0);
    EXPECT_EQ(kestal_ctx_set_option_string(id_, 1, "a", "new"), 0);
    EXPECT_EQ(all("a") + all("A"), "new ");
    EXPECT_EQ(kestal_ctx_set_option_string(none, 1, "a", "x"), -1);
    EXPECT_EQ(kestal_ctx_get_option(none, "a"), nullptr);
}

TEST_F(context, opens_with_the_newest_willing_plugin)
{
    kestal_ctx0_v0_interface_t table = new_table();
    table.m_open = open_or_refuse;
    const loaded_probe older("probe.so", "test/*", table);
    const loaded_probe newer("second_probe.so", "test/both", table);

    const struct {
        const char *type;
        std::map<std::string, uint32_t> refusals;
        const char *calls;
        const char *served_by;
        uint32_t error;
    } cases[] = {
        {"test/both", {}, "second_probe.so ", "second_probe.so", 0},
        {"test/one", {}, "probe.so ", "probe.so", 0},
        {"test/both", {{"second_probe.so", 3}}, "second_probe.so probe.so ", "probe.so", 0},
        {"test/both", {{"second_probe.so", 1}}, "second_probe.so ", nullptr, 1},
        {"test/both", {{"second_probe.so", 0}}, "second_probe.so ", nullptr, 3},
        {"test/both", {{"second_probe.so", 3}, {"probe.so", 99}}, "second_probe.so probe.so ", nullptr, 99},
        {"test/both", {{"second_probe.so", 3}, {"probe.so", 3}}, "second_probe.so probe.so ", nullptr, 3},
        {"nobody/takes-this", {}, "", nullptr, 3},
        {nullptr, {}, "", nullptr, 3},
    };
    for (const auto &[type, refused, expected_calls, served_by, error] : cases) {
        SCOPED_TRACE(testing::Message() << (type ? type : "(null)") << ": " << expected_calls);
        calls.clear();
        refusals = refused;
        kestal_ctx_set_option_string(id_, 1, "kept", "yes");
        EXPECT_EQ(kestal_open_ctx(id_, type), served_by == nullptr ? -1 : 0);
        EXPECT_EQ(calls, expected_calls);
        EXPECT_STREQ(kestal_get_ctx_plugin_name(id_), served_by);
        const kestal_ctx_t &record = *static_cast<kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr));
        EXPECT_EQ(record.m_last_error, error);
        EXPECT_EQ(record.m_kind, -1);
        EXPECT_STREQ(record.m_mime_type, served_by == nullptr ? nullptr : type);
        EXPECT_EQ(kestal_get_valid_ctx(id_), served_by == nullptr ? nullptr : &record);
        EXPECT_EQ(kestal_check_ctx_mime_type(id_, "TEST/both"), served_by == nullptr ? -1 : 0);
        EXPECT_STREQ(kestal_ctx_get_option_string(id_, "kept"), "yes");
        if (served_by != nullptr) {
            EXPECT_EQ(kestal_open_ctx(id_, "test/both"), -1);
            EXPECT_EQ(record.m_last_error, KESTAL_CTX_ERROR_ALREADY_OPEN);
        }
        EXPECT_EQ(kestal_close_ctx(id_), 0);
        EXPECT_EQ(kestal_ctx_get_option(id_, "kept"), nullptr);
    }
    EXPECT_EQ(kestal_open_ctx(none, "test/both"), -1);
    EXPECT_EQ(kestal_open_ctx(older.id(), "test/both"), -1); // a plugin's id is no context's
    EXPECT_EQ(kestal_close_ctx(none), -1);
}

TEST_F(context, passes_over_plugins_that_cannot_open)
{
    kestal_ctx0_v0_interface_t willing = new_table();
    willing.m_open = open_or_refuse;
    kestal_ctx0_v0_interface_t strange = willing;
    const loaded_probe older("probe.so", nullptr, willing);
    const loaded_probe newer("second_probe.so", nullptr, strange);
    const auto open = [this] {
        EXPECT_EQ(kestal_open_ctx(id_, "any/type"), 0);
        kestal_close_ctx(id_);
    };
    strange.m_version = 2;
    open();
    strange.m_version = 1;
    strange.m_open = nullptr;
    open();
    strange.m_open = open_or_refuse;
    strange.m_size = sizeof(strange) - 1;
    const caught_assertions reports;
    open();
    EXPECT_EQ(calls, "probe.so probe.so second_probe.so ");
    EXPECT_EQ(reports.messages()[0],
              "s_interface_header->m_size >= ((kestal_uint32_t)sizeof(kestal_ctx0_v0_interface_t))");
}

// --- forwarding

int32_t note(const char *what, uint64_t number, int32_t answer)
{
    calls += what + std::to_string(number) + " ";
    return answer;
}

// A table whose operations note what they are called with and answer with numbers of their own.
kestal_ctx0_v1_interface_t noting_table()
{
    using ctx_t = kestal_ctx_t;
    kestal_ctx0_v1_interface_t table{};
    kestal_ctx0_v0_interface_t &base = table.m_base;
    base.m_version = 1;
    base.m_revision = 1;
    base.m_size = sizeof(table);
    base.m_open = [](ctx_t *) { return 0; };
    base.m_close = [](ctx_t *) { return note("close", 0, -1); };
    base.m_vbcontrol = [](ctx_t *, uint32_t code, va_list list) { return note("b", code, va_arg(list, int)); };
    base.m_vxcontrol = [](ctx_t *, uint32_t code, va_list list) { return note("x", code, va_arg(list, int)); };
    base.m_vcontrol = [](ctx_t *, uint32_t code, va_list list) { return note("v", code, va_arg(list, int)); };
    base.m_is_readable = [](ctx_t *ctx, int32_t timeout) { return note("error", ctx->m_last_error, timeout); };
    base.m_read = [](ctx_t *, void *buffer, uint64_t size) -> int64_t {
        return *static_cast<char *>(buffer) = 'r', int64_t(size);
    };
    base.m_is_writable = [](ctx_t *, int32_t timeout) { return timeout; };
    base.m_write = [](ctx_t *, const void *data, uint64_t size) -> int64_t {
        calls.append(static_cast<const char *>(data), size);
        return int64_t{1} << 40;
    };
    base.m_seek = [](ctx_t *, int64_t offset, uint32_t whence) { return offset + whence; };
    base.m_sync = [](ctx_t *ctx) { return ctx->m_last_error = 77, -1; };
    base.m_get_env = [](ctx_t *ctx, uint64_t a, uint64_t b, uint64_t *size) -> void * { return *size += a + b, ctx; };
    base.m_set_env = [](ctx_t *, uint64_t a, uint64_t b, uint64_t c, uint64_t d) { return int32_t(a + b + c + d); };
    base.m_get_last_error = [](ctx_t *ctx) { return ctx->m_last_error + 1000; };
    base.m_set_last_error = [](ctx_t *ctx, uint32_t code) { return ctx->m_last_error = code, 14; };
    base.m_main = [](int argc, char **) { return argc + 40; };
    return table;
}

// Every forwarding call fails on this context; `error` is the last error after each, -1 where there is no record.
void expect_every_call_fails(uint32_t id, int64_t error)
{
    uint64_t size = 1;
    const std::function<bool()> failing_calls[] = {
        [&] { return kestal_ctx_bcontrol(id, 1) == -1; },
        [&] { return kestal_ctx_xcontrol(id, 1) == -1; },
        [&] { return kestal_ctx_control(id, 1) == -1; },
        [&] { return kestal_ctx_is_readable(id, 0) == -1; },
        [&] { return kestal_ctx_printf(id, "%d", 1) == -1; },
        [&] { return kestal_ctx_rewind(id) == -1; },
        [&] { return kestal_ctx_sync(id) == -1; },
        [&] { return kestal_ctx_get_env(id, 1, 2, &size) == nullptr && size == 0; },
        [&] { return kestal_ctx_set_env(id, 1, 2, 3, 4) == -1; },
        [&] { return kestal_ctx_get_last_error(id) == -1; },
        [&] { return kestal_ctx_set_last_error(id, 5) == -1; },
        [&] { return kestal_ctx_execute_main(id, 0, nullptr) == 1; },
        [&] { return kestal_ctx_db_get_query(id, "q") == 0; },
        [&] { return kestal_ctx_db_free_result(id, 5) == 5; },
        [&] { return kestal_ctx_db_get_field_index_f(id, 5, 0, "n") == -1; },
    };
    for (const auto &fails : failing_calls) {
        EXPECT_TRUE(fails()) << "call " << &fails - failing_calls;
        EXPECT_EQ(error >= 0 ? last_error(id) : error, error) << "call " << &fails - failing_calls;
    }
}

TEST_F(context, forwards_every_operation)
{
    kestal_ctx0_v1_interface_t table = noting_table();
    const loaded_probe probe("probe.so", "test/*", table.m_base);
    ASSERT_EQ(kestal_open_ctx(id_, "test/x"), 0);

    char byte = 0;
    uint64_t size = 99;
    const int64_t large = int64_t{1} << 40;
    const std::vector<int64_t> results = {
        kestal_ctx_set_last_error(id_, 5),
        kestal_ctx_get_last_error(id_), // asked of the plugin, and nothing cleared
        kestal_ctx_is_readable(id_, 21),
        kestal_ctx_is_writable(id_, 22),
        kestal_ctx_read(id_, &byte, UINT64_MAX / 2),
        kestal_ctx_write(id_, "w;", 2),
        kestal_ctx_puts(id_, nullptr),
        kestal_ctx_printf(id_, "%03d;", 7),
        kestal_ctx_bcontrol(id_, 1, 11),
        kestal_ctx_xcontrol(id_, UINT32_MAX, 12),
        kestal_ctx_control(id_, 3, 13),
        kestal_ctx_seek(id_, large, 2),
        kestal_ctx_rewind(id_),
        kestal_ctx_set_env(id_, 1, 2, 3, 4),
        kestal_ctx_execute_main(id_, 2, nullptr),
        kestal_ctx_sync(id_),
        last_error(id_),
        kestal_ctx_get_env(id_, 3, 4, &size) == kestal_get_valid_ctx(id_),
        kestal_ctx_printf(id_, "%70000d", 1),
        last_error(id_),
    };
    EXPECT_EQ(results, (std::vector<int64_t>{
                           14, 1005,      21, 22, INT64_MAX, large, large, large, 11, 12,
                           13, large + 2, 0,  10, 42,        -1,    77,    1,     0,  KESTAL_CTX_ERROR_NO_MEMORY}));
    EXPECT_EQ(byte, 'r');
    EXPECT_EQ(size, 7u);

    // A base table has no main entry, and an extended one that says too small a size is read all the same.
    table.m_base.m_revision = 0;
    EXPECT_EQ(kestal_ctx_execute_main(id_, 2, nullptr), 1);
    table.m_base.m_revision = 1;
    table.m_base.m_size = sizeof(table) - 1;
    const caught_assertions reports;
    EXPECT_EQ(kestal_ctx_execute_main(id_, 3, nullptr), 43);
    EXPECT_EQ(reports.messages()[0], "s_interface_header->m_size >= sizeof(kestal_ctx0_v1_interface_t)");

    // Whether there are controls is judged by the one slot; a missing slot of their own is no crash either.
    const auto vbcontrol = std::exchange(table.m_base.m_vbcontrol, nullptr);
    EXPECT_EQ(kestal_ctx_xcontrol(id_, 4, 12), -1);
    EXPECT_EQ(kestal_ctx_control(id_, 5, 13), -1);
    table.m_base.m_vbcontrol = vbcontrol;
    table.m_base.m_vxcontrol = nullptr;
    EXPECT_EQ(kestal_ctx_control(id_, 6, 13), 13);
    EXPECT_EQ(kestal_ctx_xcontrol(id_, 7, 12), -1);
    EXPECT_EQ(last_error(id_), KESTAL_CTX_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(kestal_close_ctx(id_), 0); // whatever the plugin's close returned
    EXPECT_EQ(calls, "error0 w;007;b1 x4294967295 v3 v6 close0 ");
}

TEST_F(context, answers_failure_without_plugin_operation_or_context)
{
    expect_every_call_fails(none, -1);
    const kestal_ctx0_v1_interface_t table = noting_table();
    const loaded_probe full("probe.so", "full/*", table.m_base);
    expect_every_call_fails(full.id(), -1);

    // A closed context keeps its last error.
    ASSERT_EQ(kestal_open_ctx(id_, "nobody/takes-this"), -1);
    static_cast<kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr))->m_last_error = 55;
    expect_every_call_fails(id_, 55);

    kestal_ctx0_v0_interface_t bare = new_table();
    bare.m_open = open_or_refuse;
    const loaded_probe probe("second_probe.so", "bare/*", bare);
    ASSERT_EQ(kestal_open_ctx(id_, "bare/x"), 0);
    expect_every_call_fails(id_, 3);
    bare.m_version = 2;
    expect_every_call_fails(id_, 3);
    kestal_close_ctx(id_);
}

// The last database control: code, size and content of its record, whose first 32 bits become 42.
uint32_t code_seen;
std::vector<uint64_t> record_seen;

int32_t database(kestal_ctx_t *, uint32_t code, va_list list)
{
    void *record = va_arg(list, void *);
    code_seen = code;
    record_seen.resize(va_arg(list, uint64_t) / sizeof(uint64_t));
    std::memcpy(record_seen.data(), record, record_seen.size() * sizeof(uint64_t));
    const int32_t answer = 42;
    std::memcpy(record, &answer, sizeof(answer));
    return -5;
}

TEST_F(context, asks_databases_by_record)
{
    if (!KESTAL_POINTER_IS_64_BIT)
        GTEST_SKIP() << "the records below are those of 64-bit pointers";
    kestal_ctx0_v1_interface_t table = noting_table();
    table.m_base.m_vxcontrol = database;
    const loaded_probe probe("probe.so", "test/database", table.m_base);
    ASSERT_EQ(kestal_open_ctx(id_, "test/database"), 0);

    const char *const text = "text";
    const uint64_t pointer = reinterpret_cast<uintptr_t>(text);
    const uint64_t minus_one = UINT32_MAX;
    kestal_ctx_fbinfo_t info{};
    const struct {
        std::function<uint64_t()> call;
        uint32_t code;
        std::vector<uint64_t> record;
        uint64_t result = 42;
    } cases[] = {
        {[&] { return kestal_ctx_db_get_query_puts(id_, text); }, 0x0102000B, {0, 0, pointer}},
        {[&] { return kestal_ctx_db_set_query_puts(id_, text); }, 0x0202000B, {minus_one, 0, pointer}},
        {[&] { return kestal_ctx_db_free_result(id_, 8); }, 0x0602000C, {8}},
        {[&] { return kestal_ctx_db_fetch_row(id_, 8); }, 0x0802000D, {0, 8}},
        {[&] { return kestal_ctx_db_get_row_count(id_, 8); }, 0x0102000E, {0, 8}},
        {[&] { return kestal_ctx_db_get_field_count(id_, 8); }, 0x0102000F, {0, 8}},
        {[&] { return kestal_ctx_db_get_field_index(id_, 8, 3, text); },
         0x01020010,
         {minus_one | uint64_t{3} << 32, pointer, 8}},
        {[&] { return reinterpret_cast<uintptr_t>(kestal_ctx_db_get_field_name(id_, 8, 3)); }, 0x01020012, {0, 3, 8}},
        {[&] { return -kestal_ctx_db_dump_result(id_, 8, 1, 2); }, 0x0902000C, {1, 2, 8}, 5},
        {[&] { return -kestal_ctx_get_fbinfo(id_, &info); }, 0x01030011, std::vector<uint64_t>(11), 5},
    };
    for (const auto &[call, code, record, result] : cases) {
        EXPECT_EQ(call(), result) << std::hex << code;
        EXPECT_EQ(code_seen, code);
        EXPECT_EQ(record_seen, record) << std::hex << code;
    }
    EXPECT_EQ(kestal_ctx_db_set_query(id_, "%d", 1), 42);
    EXPECT_EQ(kestal_ctx_db_set_query(id_, "%70000d", 1), -1);
    EXPECT_EQ(last_error(id_), KESTAL_CTX_ERROR_NO_MEMORY);
    kestal_close_ctx(id_);
}

// --- a plugin that serves http from memory

std::string page;
std::string headers_seen;
size_t readable_until; // from this position on nothing becomes readable
size_t broken_at;      // from this position on reading fails

int32_t open_page(kestal_ctx_t *ctx)
{
    if (std::strncmp(kestal_ctx_get_option_string_ex(ctx->m_id, "src", ""), "http://", 7) != 0) {
        ctx->m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
        return -1;
    }
    EXPECT_STREQ(kestal_ctx_get_option_string(ctx->m_id, "mode"), "rb");
    headers_seen.clear();
    for (const kestal_ctx_option_t *option = ctx->m_option_head; option != nullptr; option = option->m_next)
        if (std::strcmp(option->m_name, "httpheader") == 0)
            headers_seen += std::string("<") + static_cast<char *>(option->m_value) + ">";
    ctx->m_reserved[0] = 0; // the position
    return 0;
}

int64_t read_page(kestal_ctx_t *ctx, void *buffer, uint64_t size)
{
    uint64_t &position = ctx->m_reserved[0];
    if (position >= broken_at)
        return -1;
    const size_t length = page.copy(static_cast<char *>(buffer), size, position);
    position += length;
    return static_cast<int64_t>(length);
}

TEST_F(context, fetches_a_page_whole_or_not_at_all)
{
    kestal_ctx0_v0_interface_t table = new_table();
    table.m_open = open_page;
    table.m_is_readable = [](kestal_ctx_t *ctx, int32_t) { return ctx->m_reserved[0] < readable_until ? 1 : 0; };
    table.m_read = read_page;
    const loaded_probe probe("probe.so", "application/ulx_stream*", table);
    std::string whole;
    while (whole.size() < 5000)
        whole += static_cast<char>(whole.size() * 7);

    const struct {
        size_t length, readable_until, broken_at;
        uint64_t limit;
        int32_t result;
    } cases[] = {{5000, SIZE_MAX, SIZE_MAX, 0, 0},     {5000, SIZE_MAX, SIZE_MAX, 5001, 0},
                 {5000, SIZE_MAX, SIZE_MAX, 5000, -1}, // reached is too much
                 {5000, 4096, SIZE_MAX, 0, -1},        {5000, SIZE_MAX, 4096, 0, -1},
                 {0, SIZE_MAX, SIZE_MAX, 0, 0}};
    void *data = nullptr;
    uint64_t size = 0;
    for (const auto &expected : cases) {
        page = whole.substr(0, expected.length);
        readable_until = expected.readable_until;
        broken_at = expected.broken_at;
        data = &data;
        size = 1;
        EXPECT_EQ(kestal_ctx_simple_http_get("http://h/", nullptr, expected.limit, 0, &data, &size), expected.result);
        const std::string fetched = data == nullptr ? "" : std::string(static_cast<char *>(data), size);
        EXPECT_TRUE(fetched == (expected.result == 0 ? page : "")) << "case " << &expected - cases;
        EXPECT_EQ(size, fetched.size());
        kestal_check_free(data);
    }
    EXPECT_EQ(kestal_ctx_simple_http_get("gopher://h/", nullptr, 0, 0, &data, &size), -1);
    EXPECT_EQ(kestal_ctx_simple_http_get(nullptr, nullptr, 0, 0, &data, &size), -1);
    page = "x";
    EXPECT_EQ(kestal_ctx_simple_http_get("http://h/", "\r\nA: 1\r\n\nB: 2\rC", 0, 0, nullptr, nullptr), 0);
    EXPECT_EQ(headers_seen, "<A: 1><B: 2><C>");

    // Half a page must not pass for a whole one when memory is short.
    page = whole;
    EXPECT_GT(with_each_allocation_failing([&] {
                  if (kestal_ctx_simple_http_get("http://h/", "A: 1\nB: 2", 0, 0, &data, &size) == 0) {
                      EXPECT_EQ(size, whole.size());
                      EXPECT_EQ(headers_seen, "<A: 1><B: 2>");
                      kestal_free(data);
                  } else {
                      EXPECT_EQ(data, nullptr);
                  }
              }),
              5u);
}

} // namespace
