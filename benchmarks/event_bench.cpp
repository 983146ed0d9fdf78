// Event loops side by side: bytes passed round socket pairs, timers, and interest that comes and goes.
#include <kestal_ulx.h>

#include <ev.h>
constexpr int libev_read = EV_READ; // libevent uses the name as a macro
#include <event2/event.h>
#include <uv.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <random>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t timer_count = 10000;
constexpr size_t toggled_count = 1000;
constexpr size_t passes_at_least = 2000;

// What every reader and timer calls.
struct sink {
    virtual void come_up(size_t index) = 0;

protected:
    ~sink() = default;
};

struct place {
    sink *to;
    size_t index;
};

// --- the loops, each with readers and timers by index

class kestal_side {
public:
    kestal_side(sink &to, const std::vector<int> &descriptors, size_t timers) : base_(kestal_new_event_base())
    {
        const auto call = [](kestal_event_t *, int32_t, uint32_t what, void *context) {
            auto *at = static_cast<place *>(context);
            if ((what & (KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED)) == 0)
                at->to->come_up(at->index);
        };
        events_.resize(descriptors.size() + timers);
        places_.resize(events_.size());
        for (size_t i = 0; i < events_.size(); ++i) {
            places_[i] = {&to, i};
            const bool reads = i < descriptors.size();
            kestal_assign_event(base_, &events_[i], reads ? descriptors[i] : -1,
                                reads ? KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST : 0, call, &places_[i]);
        }
    }
    ~kestal_side() { kestal_free_event_base(base_); }
    void watch(size_t i) { kestal_add_event(&events_[i], -1); }
    void forget(size_t i) { kestal_del_event(&events_[i]); }
    void start(size_t i, int milliseconds) { kestal_add_event(&events_[i], milliseconds); }
    void cancel(size_t i) { kestal_del_event(&events_[i]); }
    void run() { kestal_event_base_dispatch(base_); }
    void look() { kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_NON_BLOCK); }
    void stop() { kestal_event_base_break_loop(base_); }

private:
    kestal_event_base_t *base_;
    std::vector<kestal_event_t> events_;
    std::vector<place> places_;
};

class libevent_side {
public:
    libevent_side(sink &to, const std::vector<int> &descriptors, size_t timers) : base_(event_base_new())
    {
        const auto call = [](evutil_socket_t, short, void *context) {
            auto *at = static_cast<place *>(context);
            at->to->come_up(at->index);
        };
        places_.resize(descriptors.size() + timers);
        for (size_t i = 0; i < places_.size(); ++i) {
            places_[i] = {&to, i};
            const bool reads = i < descriptors.size();
            events_.push_back(event_new(base_, reads ? descriptors[i] : -1,
                                        static_cast<short>(reads ? EV_READ | EV_PERSIST : 0), call, &places_[i]));
        }
    }
    ~libevent_side()
    {
        for (event *at : events_)
            event_free(at);
        event_base_free(base_);
    }
    void watch(size_t i) { event_add(events_[i], nullptr); }
    void forget(size_t i) { event_del(events_[i]); }
    void start(size_t i, int milliseconds)
    {
        const timeval after{milliseconds / 1000, milliseconds % 1000 * 1000};
        event_add(events_[i], &after);
    }
    void cancel(size_t i) { event_del(events_[i]); }
    void run() { event_base_dispatch(base_); }
    void look() { event_base_loop(base_, EVLOOP_NONBLOCK); }
    void stop() { event_base_loopbreak(base_); }

private:
    event_base *base_;
    std::vector<event *> events_;
    std::vector<place> places_;
};

class libev_side {
public:
    libev_side(sink &to, const std::vector<int> &descriptors, size_t timers) : loop_(ev_loop_new(EVFLAG_AUTO))
    {
        readers_.resize(descriptors.size());
        timers_.resize(timers);
        places_.resize(descriptors.size() + timers);
        for (size_t i = 0; i < places_.size(); ++i)
            places_[i] = {&to, i};
        for (size_t i = 0; i < readers_.size(); ++i) {
            ev_io_init(&readers_[i], call<ev_io>, descriptors[i], libev_read);
            readers_[i].data = &places_[i];
        }
        for (size_t i = 0; i < timers; ++i) {
            ev_timer_init(&timers_[i], call<ev_timer>, 0., 0.);
            timers_[i].data = &places_[readers_.size() + i];
        }
    }
    ~libev_side() { ev_loop_destroy(loop_); }
    void watch(size_t i) { ev_io_start(loop_, &readers_[i]); }
    void forget(size_t i) { ev_io_stop(loop_, &readers_[i]); }
    void start(size_t i, int milliseconds)
    {
        ev_timer_set(&timers_[i - readers_.size()], milliseconds / 1000., 0.);
        ev_timer_start(loop_, &timers_[i - readers_.size()]);
    }
    void cancel(size_t i) { ev_timer_stop(loop_, &timers_[i - readers_.size()]); }
    void run() { ev_run(loop_, 0); }
    void look() { ev_run(loop_, EVRUN_NOWAIT); }
    void stop() { ev_break(loop_, EVBREAK_ALL); }

private:
    template <typename Watcher>
    static void call(struct ev_loop *, Watcher *watcher, int)
    {
        auto *at = static_cast<place *>(watcher->data);
        at->to->come_up(at->index);
    }

    struct ev_loop *loop_;
    std::vector<ev_io> readers_;
    std::vector<ev_timer> timers_;
    std::vector<place> places_;
};

class libuv_side {
public:
    libuv_side(sink &to, const std::vector<int> &descriptors, size_t timers)
    {
        uv_loop_init(&loop_);
        readers_.resize(descriptors.size());
        timers_.resize(timers);
        places_.resize(descriptors.size() + timers);
        for (size_t i = 0; i < places_.size(); ++i)
            places_[i] = {&to, i};
        for (size_t i = 0; i < readers_.size(); ++i) {
            uv_poll_init(&loop_, &readers_[i], descriptors[i]);
            readers_[i].data = &places_[i];
        }
        for (size_t i = 0; i < timers; ++i) {
            uv_timer_init(&loop_, &timers_[i]);
            timers_[i].data = &places_[readers_.size() + i];
        }
    }
    ~libuv_side()
    {
        for (uv_poll_t &reader : readers_)
            uv_close(reinterpret_cast<uv_handle_t *>(&reader), nullptr);
        for (uv_timer_t &timer : timers_)
            uv_close(reinterpret_cast<uv_handle_t *>(&timer), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    void watch(size_t i)
    {
        uv_poll_start(&readers_[i], UV_READABLE, [](uv_poll_t *reader, int, int) { call(reader->data); });
    }
    void forget(size_t i) { uv_poll_stop(&readers_[i]); }
    void start(size_t i, int milliseconds)
    {
        uv_timer_start(
            &timers_[i - readers_.size()], [](uv_timer_t *timer) { call(timer->data); },
            static_cast<uint64_t>(milliseconds), 0);
    }
    void cancel(size_t i) { uv_timer_stop(&timers_[i - readers_.size()]); }
    void run() { uv_run(&loop_, UV_RUN_DEFAULT); }
    void look() { uv_run(&loop_, UV_RUN_NOWAIT); }
    void stop() { uv_stop(&loop_); }

private:
    static void call(void *data)
    {
        auto *at = static_cast<place *>(data);
        at->to->come_up(at->index);
    }

    uv_loop_t loop_{};
    std::vector<uv_poll_t> readers_;
    std::vector<uv_timer_t> timers_;
    std::vector<place> places_;
};

// --- what is measured

class socket_pairs {
public:
    explicit socket_pairs(size_t count)
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (size_t i = 0; i < count; ++i) {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0)
                std::abort();
            reading.push_back(ends[0]);
            writing.push_back(ends[1]);
        }
    }
    ~socket_pairs()
    {
        for (size_t i = 0; i < reading.size(); ++i) {
            close(reading[i]);
            close(writing[i]);
        }
    }
    std::vector<int> reading;
    std::vector<int> writing;
};

// Each byte that arrives goes on to the next pair, until enough have.
template <typename Side>
class passing final : public sink {
public:
    explicit passing(size_t pairs) : pairs_(pairs), side_(*this, pairs_.reading, 0)
    {
        for (size_t i = 0; i < pairs; ++i)
            side_.watch(i);
    }
    size_t run(size_t bytes)
    {
        wanted_ = std::max(passes_at_least, pairs_.reading.size());
        passed_ = 0;
        flying_ = bytes;
        for (size_t i = 0; i < bytes; ++i)
            send(i * (pairs_.reading.size() / bytes));
        side_.run();
        return passed_;
    }
    void come_up(size_t index) override
    {
        char byte = 0;
        if (read(pairs_.reading[index], &byte, 1) != 1)
            std::abort();
        if (++passed_ + flying_ <= wanted_)
            send((index + 1) % pairs_.reading.size());
        else if (--flying_ == 0)
            side_.stop();
    }

private:
    void send(size_t index)
    {
        if (write(pairs_.writing[index], "x", 1) != 1)
            std::abort();
    }

    socket_pairs pairs_;
    Side side_;
    size_t wanted_ = 0, passed_ = 0, flying_ = 0;
};

template <typename Side>
void pass_bytes(benchmark::State &state, size_t pairs, size_t bytes)
{
    passing<Side> ring(pairs);
    ring.run(bytes); // some loops tell the kernel of their descriptors only now
    int64_t passed = 0;
    for (auto _ : state)
        passed += static_cast<int64_t>(ring.run(bytes));
    state.SetItemsProcessed(passed);
}

struct ignore final : sink {
    void come_up(size_t) override { ++calls; }
    size_t calls = 0;
};

enum class timed { add, cancel, fire };

template <typename Side>
void timers(benchmark::State &state, timed what)
{
    ignore counted;
    Side side(counted, {}, timer_count);
    std::mt19937 random(1);
    std::vector<int> delays(timer_count);
    for (int &delay : delays)
        delay = what == timed::fire ? 0 : 1000 + static_cast<int>(random() % 60000);
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        for (size_t i = 0; i < timer_count; ++i)
            side.start(i, delays[i]);
        const auto added = std::chrono::steady_clock::now();
        if (what == timed::fire)
            for (const size_t before = counted.calls; counted.calls < before + timer_count;)
                side.look();
        else
            for (size_t i = 0; i < timer_count; ++i)
                side.cancel(i);
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(what == timed::add      ? added - begin
                                                             : what == timed::cancel ? end - added
                                                                                     : end - begin)
                                   .count());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * int64_t{timer_count});
}

template <typename Side>
void toggle_interest(benchmark::State &state)
{
    ignore none;
    socket_pairs pairs(toggled_count);
    Side side(none, pairs.reading, 0);
    for (auto _ : state) {
        for (size_t i = 0; i < toggled_count; ++i)
            side.watch(i);
        side.look();
        for (size_t i = 0; i < toggled_count; ++i)
            side.forget(i);
        side.look();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * int64_t{toggled_count});
}

template <typename Side>
void enter(const std::string &who)
{
    const auto add = [&who](const std::string &row, auto body) {
        return benchmark::RegisterBenchmark((row + ":" + who).c_str(), body);
    };
    for (const size_t pairs : {size_t{100}, size_t{1000}, size_t{9900}})
        for (const size_t bytes : {size_t{1}, size_t{50}, pairs}) {
            const std::string active = bytes == pairs ? "all" : std::to_string(bytes);
            add("loop " + std::to_string(pairs) + " pairs, " + active + " active",
                [=](benchmark::State &state) { pass_bytes<Side>(state, pairs, bytes); });
        }
    add("10000 timers, add", [](benchmark::State &state) { timers<Side>(state, timed::add); })->UseManualTime();
    add("10000 timers, cancel", [](benchmark::State &state) { timers<Side>(state, timed::cancel); })->UseManualTime();
    add("10000 timers, add and fire", [](benchmark::State &state) {
        timers<Side>(state, timed::fire);
    })->UseManualTime();
    add("1000 descriptors, watch and forget", toggle_interest<Side>);
}

const bool entered = [] {
    enter<kestal_side>("kestal");
    enter<libevent_side>("libevent");
    enter<libev_side>("libev");
    enter<libuv_side>("libuv");
    return true;
}();

} // namespace
