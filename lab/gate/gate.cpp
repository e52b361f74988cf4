// The loop that lets the daemon run to its next system call, has that call served, and moves the
// clock when nothing else can happen. What it needs for that are the daemon's process (daemon.h),
// its threads and their time (clock.h), its descriptors to the models (links.h) and what becomes of
// each call (calls.h).
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "lab/gate/calls.h"
#include "lab/run/run.h"

namespace rvd::lab {

namespace {

using std::chrono::steady_clock;

// A daemon that only sleeps for so long, with no event pending, has parked.
constexpr Time kQuiet = 200 * kSecond;

// Waits are not seen with the real clock; none of the daemon's waits for the modem is longer.
constexpr Time kRealQuiet = 35 * kSecond;

// After so long without a call, what the running thread sends is queued: a node's buffer may be
// full.
constexpr int kRunnerPatienceMs = 2;

constexpr int kRealPatienceMs = 1000;
constexpr int kFarewellMs = 5000;

class Gate : public RunStage {
  public:
    Gate(const Scenario& scenario, const Phone& phone, Story& story, const RunOptions& options,
         Time start)
        : RunStage(scenario, phone, story, options),
          shapes_(calls_to_watch(scenario, !options.real_time, options.learn)),
          filter_(filter_for(shapes_)),
          clock_(start),
          links_(daemon_, clock_, story, modem()),
          calls_({scenario, phone, story, *this, daemon_, clock_, links_}) {
        for (const CallShape& shape : shapes_)
            shape_of_.emplace(shape.number, &shape);
    }

    void start_daemon() override {
        close_daemon();
        calls_.restart();
        clock_.restart();
        daemon_.start(phone_, filter_, !options_.real_time);
        tell_start();
    }

    void panic() override {
        calls_.lose_device();
        enter_upload_mode();
    }

    std::string serve() override {
        while (end_.empty()) {
            if (options_.real_time) {
                serve_real_time();
            } else {
                serve_virtual_time();
            }
            check_patience();
        }
        let_daemon_exit();
        close_daemon();
        return end_;
    }

    pid_t daemon() const override { return daemon_.pid(); }
    std::string path_of(int fd) const override { return calls_.path_of_fd(fd); }
    Time now() const override { return clock_.now(); }
    void hang_up(Node node) override { links_.hang_up(node); }
    void end_hang_up() override { links_.end_hang_up(calls_.served()); }
    void flush(Node node) override { links_.flush(node, calls_.served()); }
    void pump(Node node) override { links_.pump(node); }

  private:
    // Ends the process with all of its threads, and closes its links.
    void close_daemon() {
        daemon_.end();
        links_.take();
        links_.close_all();
        modem().abandoned();
    }

    // Output is read and events happen only while all threads of the daemon are stopped, so that
    // the story depends on the scenario alone.
    void serve_virtual_time() {
        if (!clock_.at_rest()) return await_call(kRunnerPatienceMs);
        links_.take();
        run_due_events();
        if (end_.empty() && clock_.at_rest()) step();
    }

    // Resumes one thread or, where none can run, advances the clock.
    void step() {
        if (const Clock::Thread* thread = clock_.next()) {
            const Call call = thread->call;
            clock_.resume(call.tid());
            return calls_.handle(call);
        }
        for (const Clock::Thread& thread : clock_.threads()) {
            const Call call = thread.call;
            const bool polls = thread.state == Clock::Thread::State::waits &&
                               call.shape->serve == &Calls::serve_poll;
            if (!polls || !calls_.finish_poll(call)) continue;
            return clock_.resume(call.tid());
        }
        advance();
    }

    void advance() {
        const Time event = events_.empty() ? kNever : events_.begin()->first;
        const Clock::Thread& waiting = *clock_.first_waiting();
        const Time next = std::min(event, waiting.deadline);
        const Time limit = clock_.start() + scenario_.limit;
        if (next == kNever) return stop("waits");
        if (event == kNever && next - clock_.last_activity() > kQuiet) return stop("parked");
        if (next > limit) {
            set_time(limit);
            return stop("limit");
        }
        set_time(std::max(clock_.now(), next));
        if (event <= clock_.now()) return run_due_events();
        const Call call = waiting.call;
        clock_.resume(call.tid());
        calls_.expire(call);
    }

    // With the real clock the daemon keeps running while its output is read.
    void serve_real_time() {
        run_due_events();
        if (!end_.empty()) return;
        int timeout = kRealPatienceMs;
        if (!events_.empty())
            timeout = static_cast<int>(std::clamp<Time>(
                    (events_.begin()->first - now()) / kMillisecond, 0, kRealPatienceMs));
        await_call(timeout);
        if (events_.empty() && now() - clock_.last_activity() > kRealQuiet) stop("quiet");
    }

    void await_call(int timeout) {
        std::vector<pollfd> set = {{daemon_.listener(), POLLIN, 0}, {daemon_.pidfd(), POLLIN, 0}};
        if (options_.real_time) links_.add_to(set);
        const int ready = poll(set.data(), set.size(), timeout);
        widen();
        if (options_.real_time)
            set_time(clock_.start() + (steady_clock::now() - began_) / std::chrono::nanoseconds(1));
        if ((set[0].revents & POLLIN) != 0) {
            take_call();
        } else if (options_.real_time) {
            links_.take();
            links_.pump_all();
        } else if (ready == 0) {
            links_.receive();
            if (daemon_.waits_for_thread(clock_.running())) clock_.block(clock_.running());
        }
        int status = 0;
        if ((set[1].revents & POLLIN) != 0 && daemon_.ended(status)) {
            links_.take();
            take_end(status);
        }
    }

    void take_call() {
        Call call{};
        if (!daemon_.receive(call.raw)) return;
        call.shape = shape_of_.at(call.raw.data.nr);
        // A sanitizer's process looks for leaks while the thread that ends the daemon spins.
        if (!clock_.knows(call.tid()) && !daemon_.has_thread(call.tid()))
            return daemon_.proceed(call);
        clock_.arrive(call);
        if (!options_.real_time) return;
        links_.take();
        clock_.resume(call.tid());
        calls_.handle(call);
    }

    void set_time(Time now) {
        clock_.set(now);
        story_.set_time(now);
    }

    // A daemon built for coverage writes its counters at exit.
    void let_daemon_exit() {
        if (daemon_.pid() < 0 || getenv("GCOV_PREFIX") == nullptr) return;
        links_.take();
        kill(daemon_.pid(), SIGTERM);
        for (const Clock::Thread& thread : clock_.threads()) {
            if (thread.state == Clock::Thread::State::stopped) daemon_.proceed(thread.call);
        }
        pollfd ready[] = {{daemon_.listener(), POLLIN, 0}, {daemon_.pidfd(), POLLIN, 0}};
        while (poll(ready, 2, kFarewellMs) > 0 && (ready[1].revents & POLLIN) == 0) {
            Call call{};
            if (daemon_.receive(call.raw)) daemon_.proceed(call);
        }
    }

    // Delays the next read, so that a result that depends on timing shows.
    void widen() const {
        if (options_.jitter > 0) usleep(static_cast<useconds_t>(options_.jitter));
    }

    const std::vector<CallShape> shapes_;
    const Filter filter_;
    std::map<int, const CallShape*> shape_of_;  // by number

    Daemon daemon_;
    Clock clock_;
    Links links_;
    Calls calls_;
};

}  // namespace

std::unique_ptr<RunStage> make_gate(const Scenario& scenario, const Phone& phone, Story& story,
                                    const RunOptions& options, Time start) {
    return std::make_unique<Gate>(scenario, phone, story, options, start);
}

}  // namespace rvd::lab
