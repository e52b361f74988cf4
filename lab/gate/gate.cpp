// The main loop of the gate: lets the daemon run to its next intercepted call, handles that call,
// and advances the clock when no thread can run. Daemon (daemon.h) is the process, Scheduler
// (scheduler.h) its threads and the clock, Links (links.h) its descriptors to the models, and Calls
// (calls.h) the handler of each call.
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

// A daemon that has only slept for this long, with no event pending, has parked.
constexpr Time kParkedAfter = 200 * kSecond;

// With the real clock the end of a run is recognized by silence, longer than the daemon ever waits
// for an answer.
constexpr Time kRealIdle = 35 * kSecond;

// The running thread may block on a full socket: its output is read after this long without a call.
constexpr int kRunningTimeoutMs = 2;

constexpr int kRealTimeoutMs = 1000;
constexpr int kExitTimeoutMs = 5000;

class Gate : public RunBackend {
  public:
    Gate(const Scenario& scenario, const Phone& phone, Story& story, const RunOptions& options,
         Time start)
        : RunBackend(scenario, phone, story, options),
          intercepted_(intercepted_calls(scenario, !options.real_time, options.record_calls)),
          filter_(filter_for(intercepted_)),
          scheduler_(start),
          links_(daemon_, scheduler_, story, modem()),
          calls_({scenario, phone, story, *this, daemon_, scheduler_, links_}) {
        for (const SyscallInfo& info : intercepted_)
            info_by_number_.emplace(info.number, &info);
    }

    void start_daemon() override {
        close_daemon();
        calls_.restart();
        scheduler_.restart();
        daemon_.start(phone_, filter_, !options_.real_time);
        report_start();
    }

    void panic() override {
        calls_.set_device_lost();
        enter_upload_mode();
    }

    std::string run() override {
        while (end_.empty()) {
            if (options_.real_time) {
                run_real_time();
            } else {
                run_virtual_time();
            }
            check_timeout();
        }
        let_daemon_exit();
        close_daemon();
        return end_;
    }

    pid_t daemon() const override { return daemon_.pid(); }
    std::string path_of(int fd) const override { return calls_.path_of_fd(fd); }
    Time now() const override { return scheduler_.now(); }
    void hang_up(Node node) override { links_.hang_up(node); }
    void clear_hang_up() override { links_.clear_hang_up(calls_.request()); }
    void discard_unread(Node node) override { links_.discard_unread(node, calls_.request()); }
    void send_packets(Node node) override { links_.send_packets(node); }

  private:
    void close_daemon() {
        daemon_.end();
        links_.dispatch();
        links_.close_all();
        modem().daemon_ended();
    }

    // Output is read and events fire only while all threads of the daemon are stopped, so that the
    // story does not depend on timing.
    void run_virtual_time() {
        if (!scheduler_.is_quiescent()) return await_call(kRunningTimeoutMs);
        links_.dispatch();
        run_due_events();
        if (end_.empty() && scheduler_.is_quiescent()) step();
    }

    // Resumes one thread, or advances the clock if none can run.
    void step() {
        if (const Scheduler::Thread* thread = scheduler_.next()) {
            const Call call = thread->call;
            scheduler_.resume(call.tid());
            return calls_.handle(call);
        }
        for (const Scheduler::Thread& thread : scheduler_.threads()) {
            const Call call = thread.call;
            const bool polls = thread.state == Scheduler::Thread::State::waits &&
                               call.info->handler == &Calls::handle_poll;
            if (!polls || !calls_.finish_poll(call)) continue;
            return scheduler_.resume(call.tid());
        }
        advance();
    }

    void advance() {
        const Time event = events_.empty() ? kNever : events_.begin()->first;
        const Scheduler::Thread& waiting = *scheduler_.first_waiting();
        const Time next = std::min(event, waiting.deadline);
        const Time limit = scheduler_.start() + scenario_.limit;
        if (next == kNever) return stop("waits");
        if (event == kNever && next - scheduler_.last_activity() > kParkedAfter)
            return stop("parked");
        if (next > limit) {
            set_time(limit);
            return stop("limit");
        }
        set_time(std::max(scheduler_.now(), next));
        if (event <= scheduler_.now()) return run_due_events();
        const Call call = waiting.call;
        scheduler_.resume(call.tid());
        calls_.expire(call);
    }

    void run_real_time() {
        run_due_events();
        if (!end_.empty()) return;
        int timeout = kRealTimeoutMs;
        if (!events_.empty())
            timeout = static_cast<int>(std::clamp<Time>(
                    (events_.begin()->first - now()) / kMillisecond, 0, kRealTimeoutMs));
        await_call(timeout);
        if (events_.empty() && now() - scheduler_.last_activity() > kRealIdle) stop("quiet");
    }

    void await_call(int timeout) {
        std::vector<pollfd> set = {{daemon_.listener(), POLLIN, 0}, {daemon_.pidfd(), POLLIN, 0}};
        if (options_.real_time) links_.add_pollfds(set);
        const int ready = poll(set.data(), set.size(), timeout);
        add_jitter();
        if (options_.real_time)
            set_time(scheduler_.start() +
                     (steady_clock::now() - began_) / std::chrono::nanoseconds(1));
        if ((set[0].revents & POLLIN) != 0) {
            receive_call();
        } else if (options_.real_time) {
            links_.dispatch();
            links_.send_all_packets();
        } else if (ready == 0) {
            links_.read_sockets();
            if (daemon_.waits_for_thread(scheduler_.running()))
                scheduler_.set_blocked(scheduler_.running());
        }
        int status = 0;
        if ((set[1].revents & POLLIN) != 0 && daemon_.ended(status)) {
            links_.dispatch();
            record_exit(status);
        }
    }

    void receive_call() {
        Call call{};
        if (!daemon_.receive(call.raw)) return;
        call.info = info_by_number_.at(call.raw.data.nr);
        // At exit a leak sanitizer makes its calls from a process of its own.
        if (!scheduler_.has(call.tid()) && !daemon_.has_thread(call.tid()))
            return daemon_.continue_call(call);
        scheduler_.stop_at(call);
        if (!options_.real_time) return;
        links_.dispatch();
        scheduler_.resume(call.tid());
        calls_.handle(call);
    }

    void set_time(Time now) {
        scheduler_.set(now);
        story_.set_time(now);
    }

    // A daemon built for coverage writes its counters when it exits.
    void let_daemon_exit() {
        if (daemon_.pid() < 0 || getenv("GCOV_PREFIX") == nullptr) return;
        links_.dispatch();
        kill(daemon_.pid(), SIGTERM);
        for (const Scheduler::Thread& thread : scheduler_.threads()) {
            if (thread.state == Scheduler::Thread::State::stopped)
                daemon_.continue_call(thread.call);
        }
        pollfd ready[] = {{daemon_.listener(), POLLIN, 0}, {daemon_.pidfd(), POLLIN, 0}};
        while (poll(ready, 2, kExitTimeoutMs) > 0 && (ready[1].revents & POLLIN) == 0) {
            Call call{};
            if (daemon_.receive(call.raw)) daemon_.continue_call(call);
        }
    }

    // Delays the next read, which exposes a result that depends on timing.
    void add_jitter() const {
        if (options_.jitter > 0) usleep(static_cast<useconds_t>(options_.jitter));
    }

    const std::vector<SyscallInfo> intercepted_;
    const Filter filter_;
    std::map<int, const SyscallInfo*> info_by_number_;

    Daemon daemon_;
    Scheduler scheduler_;
    Links links_;
    Calls calls_;
};

}  // namespace

std::unique_ptr<RunBackend> make_gate(const Scenario& scenario, const Phone& phone, Story& story,
                                      const RunOptions& options, Time start) {
    return std::make_unique<Gate>(scenario, phone, story, options, start);
}

}  // namespace rvd::lab
