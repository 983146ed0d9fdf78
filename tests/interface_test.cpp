#include "plugins/probe.hpp"

#include <bit>
#include <cstring>
#include <map>
#include <sstream>

using kestal_test::caught_assertions;

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;

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

// A table whose operations answer with numbers of their own. What moves bytes is left to the tests of the built-in plugin.
kestal_ctx0_v1_interface_t answering_table()
{
    using ctx_t = kestal_ctx_t;
    kestal_ctx0_v1_interface_t table = empty_table();
    kestal_ctx0_v0_interface_t &base = table.m_base;
    base.m_open = [](ctx_t *) { return 0; };
    base.m_close = [](ctx_t *) { return calls += "closed", -1; };
    base.m_vbcontrol = [](ctx_t *, uint32_t code, va_list list) { return int32_t(code) + va_arg(list, int); };
    base.m_vxcontrol = [](ctx_t *, uint32_t code, va_list list) { return int32_t(code) + va_arg(list, int) + 100; };
    base.m_vcontrol = [](ctx_t *, uint32_t code, va_list list) { return int32_t(code) + va_arg(list, int) + 200; };
    base.m_is_readable = [](ctx_t *ctx, int32_t timeout) { return int32_t(ctx->m_last_error) + timeout; };
    base.m_get_last_error = [](ctx_t *ctx) { return ctx->m_last_error + 1000; };
    base.m_set_last_error = [](ctx_t *ctx, uint32_t code) { return ctx->m_last_error = code, 14; };
    base.m_main = [](int argc, char **) { return argc + 40; };
    return table;
}

class context : public kestal_test::counted {
protected:
    context()
    {
        calls.clear();
        refusals.clear();
        table_.m_base.m_open = second_table_.m_base.m_open = open_or_refuse;
    }
    void TearDown() override
    {
        EXPECT_EQ(kestal_destroy_ctx(id_), none);
        kestal_unload_all_plugin();
        EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), 0u);
        counted::TearDown();
    }

    kestal_ctx_t &record() const { return *static_cast<kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr)); }
    uint32_t last_error() const { return record().m_last_error; }

    uint32_t load(const char *name, const kestal_ctx0_v1_interface_t &table, const char *hint)
    {
        set_probe(name, table.m_base, hint);
        return load_probe(name);
    }

    const uint32_t id_ = kestal_new_ctx();
    kestal_ctx0_v1_interface_t table_ = empty_table(), second_table_ = empty_table();
};

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
    EXPECT_EQ(kestal_ctx_set_option_string(id_, 1, "a", kestal_ctx_get_option_string(id_, "a")), 0); // its own value
    EXPECT_EQ(all("a"), "2 3 1 ");
    EXPECT_EQ(kestal_ctx_set_option_int_string(id_, 1, "a", INT32_MIN), 0);
    EXPECT_EQ(kestal_ctx_set_option(id_, 0, "", "x\0y", 3), 0);
    EXPECT_EQ(all("A"), std::string("3 1 -2147483648 x\0y ", 20));
    EXPECT_STREQ(static_cast<char *>(kestal_ctx_get_option(id_, nullptr)->m_value) + 2, "y"); // a NUL stands behind

    EXPECT_STREQ(kestal_ctx_get_option_string_ex(id_, "absent", "default"), "default");
    EXPECT_EQ(kestal_ctx_set_option_fstring(id_, 1, "f", "%d-x", 5), 0);
    EXPECT_EQ(kestal_ctx_set_option(id_, 1, "f", "x", UINT64_MAX), -1);
    EXPECT_EQ(last_error(), KESTAL_CTX_ERROR_NO_MEMORY);
    EXPECT_EQ(kestal_ctx_set_option_fstring(id_, 1, "f", "%70000d", 5), 0); // too long: said to be set, left alone
    EXPECT_EQ(last_error(), KESTAL_CTX_ERROR_NONE);
    EXPECT_EQ(all("f"), "5-x ");

    EXPECT_EQ(kestal_ctx_set_option(id_, UINT32_MAX, nullptr, nullptr, 2), 0); // as many zeros for all
    EXPECT_EQ(all(""), std::string("\0\0 ", 3));
    EXPECT_EQ(kestal_ctx_set_option(id_, UINT32_MAX, nullptr, nullptr, 0), 0); // none is left
    EXPECT_EQ(kestal_ctx_get_option(id_, nullptr), nullptr);
    EXPECT_EQ(kestal_ctx_set_option_string(none, 1, "a", "x"), -1);
    EXPECT_EQ(kestal_ctx_get_option(none, "a"), nullptr);
}

TEST_F(context, opens_with_the_newest_willing_plugin)
{
    const uint32_t older = load("probe.so", table_, "other|TEST/*");
    load("second_probe.so", second_table_, "test/both");
    const struct {
        const char *type;
        std::map<std::string, uint32_t> refusals;
        const char *calls;
        const char *served_by;
        uint32_t error;
    } cases[] = {
        {"test/both", {}, "second_probe.so ", "second_probe.so", 0},
        {"test/both", {{"second_probe.so", 3}}, "second_probe.so probe.so ", "probe.so", 0},
        {"test/both", {{"second_probe.so", 1}}, "second_probe.so ", nullptr, 1},
        {"test/both", {{"second_probe.so", 0}}, "second_probe.so ", nullptr, 3},
        {"test/both", {{"second_probe.so", 3}, {"probe.so", 99}}, "second_probe.so probe.so ", nullptr, 99},
        {nullptr, {}, "", nullptr, 3},
    };
    for (const auto &[type, refused, expected_calls, served_by, error] : cases) {
        SCOPED_TRACE(testing::Message() << (type ? type : "(null)") << ": " << expected_calls);
        const bool is_open = served_by != nullptr;
        calls.clear();
        refusals = refused;
        kestal_ctx_set_option_string(id_, 1, "kept", "yes");
        EXPECT_EQ(kestal_open_ctx(id_, type), is_open ? 0 : -1);
        EXPECT_EQ(calls, expected_calls);
        EXPECT_STREQ(kestal_get_ctx_plugin_name(id_), served_by);
        EXPECT_EQ(last_error(), error);
        EXPECT_EQ(record().m_kind, -1);
        EXPECT_EQ(kestal_check_ctx_mime_type(id_, "TEST/both"), is_open ? 0 : -1);
        EXPECT_STREQ(kestal_ctx_get_option_string(id_, "kept"), "yes");
        EXPECT_EQ(kestal_close_ctx(id_), 0);
        EXPECT_EQ(kestal_ctx_get_option(id_, "kept"), nullptr);
    }
    EXPECT_EQ(kestal_open_ctx(older, "test/both"), -1); // a plugin's id is no context's
    EXPECT_EQ(kestal_close_ctx(none), -1);

    // A plugin that cannot open is passed over; a table that is too small is reported, and used.
    const caught_assertions reports;
    calls.clear();
    refusals.clear();
    second_table_.m_base.m_open = nullptr;
    table_.m_base.m_size = sizeof(table_.m_base) - 1;
    EXPECT_EQ(kestal_open_ctx(id_, "test/both"), 0);
    EXPECT_EQ(kestal_open_ctx(id_, "test/both"), -1);
    EXPECT_EQ(last_error(), KESTAL_CTX_ERROR_ALREADY_OPEN);
    EXPECT_EQ(calls, "probe.so ");
    EXPECT_EQ(reports.messages(),
              std::vector<std::string>{
                  "s_interface_header->m_size >= ((kestal_uint32_t)sizeof(kestal_ctx0_v0_interface_t))"});
}

TEST_F(context, forwards_every_operation)
{
    table_ = answering_table();
    load("probe.so", table_, nullptr); // without a list it takes everything
    ASSERT_EQ(kestal_open_ctx(id_, "test/x"), 0);
    EXPECT_EQ(kestal_ctx_set_last_error(id_, 5), 14);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 1005) << "asked of the plugin, and nothing cleared";
    EXPECT_EQ(kestal_ctx_is_readable(id_, 21), 21) << "the last error is cleared";
    EXPECT_EQ(kestal_ctx_bcontrol(id_, 1, 11), 12);
    EXPECT_EQ(kestal_ctx_xcontrol(id_, 2, 12) + kestal_ctx_control(id_, 3, 13), 114 + 216);
    EXPECT_EQ(kestal_ctx_printf(id_, "%70000d", 1), 0);
    EXPECT_EQ(last_error(), KESTAL_CTX_ERROR_NO_MEMORY);

    // A base table has no main entry, and an extended one that says too small a size is read all the same.
    table_.m_base.m_revision = 0;
    EXPECT_EQ(kestal_ctx_execute_main(id_, 2, nullptr), 1);
    table_.m_base.m_revision = 1;
    table_.m_base.m_size = sizeof(table_) - 1;
    const caught_assertions reports;
    EXPECT_EQ(kestal_ctx_execute_main(id_, 3, nullptr), 43);
    EXPECT_EQ(reports.messages()[0], "s_interface_header->m_size >= sizeof(kestal_ctx0_v1_interface_t)");

    // Whether there are controls is judged by the one slot; a missing slot of their own is no crash either.
    table_.m_base.m_vxcontrol = nullptr;
    EXPECT_EQ(kestal_ctx_xcontrol(id_, 7, 12), -1);
    table_.m_base.m_vbcontrol = nullptr;
    EXPECT_EQ(kestal_ctx_control(id_, 5, 13), -1);
    EXPECT_EQ(kestal_close_ctx(id_), 0); // whatever the plugin's close returned
    EXPECT_EQ(calls, "closed");
}

TEST_F(context, answers_failure_without_plugin_operation_or_context)
{
    table_ = answering_table();
    const auto every_call_fails = [this](uint32_t id, uint32_t error) { // and leaves that as the last error
        uint64_t size = 1;
        EXPECT_EQ(kestal_ctx_bcontrol(id, 1) + kestal_ctx_xcontrol(id, 1) + kestal_ctx_control(id, 1), -3);
        EXPECT_EQ(kestal_ctx_is_readable(id, 0) + kestal_ctx_is_writable(id, 0) + kestal_ctx_sync(id), -3);
        EXPECT_EQ(kestal_ctx_read(id, &size, 1) + kestal_ctx_printf(id, "%d", 1) + kestal_ctx_rewind(id), -3);
        EXPECT_EQ(kestal_ctx_get_last_error(id) + kestal_ctx_set_last_error(id, 5), -2);
        EXPECT_EQ(kestal_ctx_get_env(id, 1, 2, &size), nullptr);
        EXPECT_EQ(kestal_ctx_set_env(id, 1, 2, 3, 4) + static_cast<int32_t>(size), -1);
        EXPECT_EQ(kestal_ctx_execute_main(id, 0, nullptr), 1);
        EXPECT_EQ(kestal_ctx_db_get_query(id, "q") + kestal_ctx_db_free_result(id, 5), 5u);
        EXPECT_EQ(kestal_ctx_db_get_field_index_f(id, 5, 0, "n"), -1);
        EXPECT_EQ(last_error(), error) << id;
    };
    record().m_last_error = 55;
    for (const uint32_t id : {load("probe.so", table_, "full/*"), id_}) // a closed context keeps its last error
        every_call_fails(id, 55);
    load("second_probe.so", second_table_, "bare/*");
    ASSERT_EQ(kestal_open_ctx(id_, "bare/x"), 0);
    every_call_fails(id_, 3);
    kestal_close_ctx(id_);
    ASSERT_EQ(kestal_open_ctx(id_, "full/x"), 0);
    table_.m_base.m_version = 2;
    every_call_fails(id_, 3);
}

// Notes a database control's code and its record in words, "&" for the text below; its first 32 bits become 42.
const char query[] = "text";

int32_t database(kestal_ctx_t *, uint32_t code, va_list list)
{
    uint64_t *record = va_arg(list, uint64_t *);
    const uint64_t words = va_arg(list, uint64_t) / sizeof(uint64_t);
    std::ostringstream text;
    text << '\n' << std::hex << code;
    for (uint64_t i = 0; i < words; ++i)
        record[i] == reinterpret_cast<uintptr_t>(query) ? text << " &" : text << ' ' << record[i];
    calls += text.str();
    const int32_t answer = 42;
    std::memcpy(record, &answer, sizeof(answer));
    return -5;
}

TEST_F(context, asks_databases_by_record)
{
    if (!KESTAL_POINTER_IS_64_BIT || std::endian::native != std::endian::little)
        GTEST_SKIP() << "the records below are those of 64-bit pointers, low words first";
    table_.m_base.m_vbcontrol = table_.m_base.m_vxcontrol = database;
    load("probe.so", table_, "test/database");
    ASSERT_EQ(kestal_open_ctx(id_, "test/database"), 0);
    calls.clear();
    kestal_ctx_fbinfo_t info{};
    EXPECT_EQ(kestal_ctx_db_get_query_puts(id_, query), 42u);
    EXPECT_EQ(kestal_ctx_db_set_query_puts(id_, query), 42);
    for (const auto ask : {kestal_ctx_db_free_result, kestal_ctx_db_fetch_row, kestal_ctx_db_get_row_count,
                           kestal_ctx_db_get_field_count})
        EXPECT_EQ(ask(id_, 8), 42u);
    EXPECT_EQ(kestal_ctx_db_get_field_index(id_, 8, 3, query), 42);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(kestal_ctx_db_get_field_name(id_, 8, 3)), 42u);
    EXPECT_EQ(kestal_ctx_db_dump_result(id_, 8, 1, 2) & kestal_ctx_get_fbinfo(id_, &info), -5);
    EXPECT_EQ(calls, "\n102000b 0 0 &\n202000b ffffffff 0 &\n602000c 8\n802000d 0 8\n102000e 0 8\n102000f 0 8"
                     "\n1020010 3ffffffff & 8\n1020012 0 3 8\n902000c 1 2 8\n1030011 0 0 0 0 0 0 0 0 0 0 0");
    EXPECT_EQ(kestal_ctx_db_set_query(id_, "%d", 1), 42);
    EXPECT_EQ(kestal_ctx_db_set_query(id_, "%70000d", 1), -1);
}

// --- a plugin that serves http from memory

std::string page;
size_t readable_until; // from this position on nothing becomes readable
size_t broken_at;      // from this position on reading fails

int32_t open_page(kestal_ctx_t *ctx)
{
    if (kestal_ctx_get_option_string(ctx->m_id, "src") == nullptr)
        return -1;
    calls.clear();
    for (const kestal_ctx_option_t *option = ctx->m_option_head; option != nullptr; option = option->m_next)
        calls += std::string("<") + option->m_name + "=" + static_cast<char *>(option->m_value) + ">";
    ctx->m_reserved[0] = 0; // the position
    return 0;
}

int64_t read_page(kestal_ctx_t *ctx, void *buffer, uint64_t size)
{
    if (ctx->m_reserved[0] >= broken_at)
        return -1;
    const size_t length = page.copy(static_cast<char *>(buffer), size, ctx->m_reserved[0]);
    ctx->m_reserved[0] += length;
    return static_cast<int64_t>(length);
}

TEST_F(context, fetches_a_page_whole_or_not_at_all)
{
    table_.m_base.m_open = open_page;
    table_.m_base.m_is_readable = [](kestal_ctx_t *ctx, int32_t) {
        return int32_t{ctx->m_reserved[0] < readable_until};
    };
    table_.m_base.m_read = read_page;
    load("probe.so", table_, "application/ulx_stream*");
    const std::string whole = kestal_test::noise(5000);
    constexpr size_t never = SIZE_MAX;
    void *data = nullptr;
    uint64_t size = 0;
    for (const auto &[length, limit, silent_from, broken_from, result] : {std::tuple(5000u, 5001u, never, never, 0),
                                                                          {5000u, 5000u, never, never, -1},
                                                                          {5000u, 0u, 4096u, never, -1},
                                                                          {5000u, 0u, never, 4096u, -1},
                                                                          {0u, 0u, never, never, 0}}) {
        page = whole.substr(0, length);
        readable_until = silent_from;
        broken_at = broken_from;
        data = &data;
        EXPECT_EQ(kestal_ctx_simple_http_get("http://h/", nullptr, limit, 0, &data, &size), result);
        const std::string fetched = data == nullptr ? "" : kestal_test::owned(data, size);
        EXPECT_TRUE(fetched == (result == 0 ? page : "")) << limit << ' ' << silent_from << ' ' << broken_from;
        EXPECT_EQ(size, fetched.size());
    }
    EXPECT_EQ(kestal_ctx_simple_http_get(nullptr, nullptr, 0, 0, &data, &size), -1);
    page = "x";
    EXPECT_EQ(kestal_ctx_simple_http_get("http://h/", "\r\nA: 1\r\n\nB: 2\rC", 0, 0, nullptr, nullptr), 0);
    const std::string options = "<src=http://h/><mode=rb><debug=0>";
    EXPECT_EQ(calls, options + "<httpheader=A: 1><httpheader=B: 2><httpheader=C>");

    // Half a page must not pass for a whole one when memory is short.
    page = whole;
    EXPECT_GT(kestal_test::with_each_allocation_failing([&] {
                  if (kestal_ctx_simple_http_get("http://h/", "A: 1", 0, 0, &data, &size) == 0) {
                      EXPECT_TRUE(kestal_test::owned(data, size) == whole);
                      EXPECT_EQ(calls, options + "<httpheader=A: 1>");
                  } else {
                      EXPECT_EQ(data, nullptr);
                  }
              }),
              5u);
}

} // namespace
