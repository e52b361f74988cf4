// Each failure that the lines tell of, as the deviation that leads to it. A deviation begins behind
// the line before the failure, so that neither calls nor words are counted from the start.
#include <fmt/format.h>
#include <string.h>

#include <algorithm>

#include "protocol/link.h"
#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

// The system call that a message says has failed.
struct Call {
    std::string_view said;
    const char* name;
};
constexpr Call kCalls[] = {
        {"log path create fail", "mkdir"},
        {"open fail", "open"},
        {"create fail", "open"},
        {"poll fail", "poll"},
        {"lseek fail", "lseek"},
        {"ftruncate", "ftruncate"},
        {"not emptied", "ftruncate"},
        {"fsync", "fsync"},
        {"rename", "rename"},
        {"link fail", "link"},
        {"statfs", "statfs"},
        {"stat fail", "stat"},
        {"read fail", "read"},
        {"write fail", "write"},
        {"gid(", "chown"},
};

// What a step works on, where its message names no path; "link", "image" and "region" are found in
// the lines before.
struct Place {
    std::string_view step;
    const char* path;
};
constexpr Place kPlaces[] = {
        {"prepare_boot_args", "/dev/block/*"},
        {"get_modem_state", "*boot0"},
        {"boot_wake_lock", "/sys/power/*"},
        {"set_sim_configuration", "*/ds_detect"},
        {"get_factory_prop", "/efs/factory.prop"},
        {"load_cp_image_by_stage", "image"},
        {"std_boot_load_cp_bootloader", "/dev/block/*"},
        {"std_dl_send_bin", "image"},
        {"std_dl_tx_frame", "image"},
        {"std_dl_send_crc", "/dev/boot"},
        {"std_udl_req_resp", "link"},
        {"std_udl_poll", "*"},
        {"std_ul_rx_frame", "/dev/dump"},
        {"get_log_dump", "region"},
        {"std_ul_recv_info", "*/cpcrash_*_info_*"},
        {"std_ul_recv_data", "*/cpcrash_*_dump_2*"},
        {"std_dump_receive_cp_dump", "*/cpcrash_*_dump_2*"},
        {"create_empty_nv", "*/#unnamed"},
        {"create_directory", "/data/vendor/log/rvd"},
        {"open_srinfo_file", "*/sr_info_*"},
        {"write_srinfo_file", "*/sr_info_*"},
        {"dmesg_to_file", "/data/vendor/log/rvd/*"},
};

// Calls that fail without the text of an errno.
struct Silent {
    std::string_view step, start;
    const char *call, *path, *error;
};
constexpr Silent kSilent[] = {
        {"check_log_directory", "statvfs failed", "statfs", "/data/vendor/log/rvd", "EIO"},
        {"save_logs_thread", "pthread_create fail", "clone", "*", "EAGAIN"},
        {"store_srinfo", "srinfo_last write fail", "write", "*/last_sr_info_*", "ENOSPC"},
        {"status_loop", "ERR! poll without POLLHUP", "poll", "*", "EINTR"},
        {"dmesg_to_file", "klogctl fail", "syslog", "*", "EPERM"},
        {"std_reboot_system", "ERR! failed to setprop", "rename", "*/properties/*", "EACCES"},
};

constexpr int64_t kChunk = 62 << 10;  // of an image to the driver

// 0 where the text is none of an errno's.
int errno_of(std::string_view text) {
    int number = 133;
    while (number > 0 && text != strerror(number))
        number--;
    return number;
}

class Failures {
  public:
    Failures(const Events& events, const Report& report, Draft& draft)
        : events_(events), report_(report), draft_(draft) {}

    void run() {
        for (at_ = 0; at_ < events_.size(); at_++) {
            const Event& event = events_[at_];
            follow(event);
            const auto line = parse_line(Sink::kCrashLog, event.text);
            if (!line) continue;
            if (line->error)
                failed_call(event, line->error_text);
            else
                silent_failure(event);
            loader(event);
        }
    }

  private:
    // Where the daemon is.
    void follow(const Event& event) {
        if (says(event, "std_udl_req_resp", "request:")) word_ = at_;
        if (says(event, "dump", "Receive CP")) link_ = "/dev/dump";
        if (says(event, "main", "Call boot start")) link_ = "/dev/boot";
        if (says(event, "get_log_dump", "/")) region_ = path_in(event.message);
        if (event.step == "load_cp_image_by_stage" || event.step == "std_dl_send_bin") {
            for (const char* key : {"stage=", "stage = ", "at stage "}) {
                if (const auto stage = number_after(event.message, key)) stage_ = *stage;
            }
            piece_ = event.step == "std_dl_send_bin" ? UDL_MSS : kChunk;
            if (const auto frames = number_after(event.message, "frames = ")) pieces_ = *frames;
            if (const auto size = number_after(event.message, "b_size="))
                pieces_ = *size / kChunk + 1;
        }
        if (event.step == "build_std_dload_control") {
            const size_t name = event.message.find("name:");
            if (const auto stage = number_after(event.message, "stage="))
                is_nv_[*stage] = event.message.compare(name + 5, 2, "NV") == 0;
        }
    }

    // Behind the line before this one.
    Draft anchored(Draft table) const {
        if (at_ > 0) table.update(line_of("after", events_, at_ - 1));
        return table;
    }

    void answer(const std::string& request, int64_t result) {
        draft_["driver"]["answer"].push_back(anchored({{"request", request}, {"result", result}}));
    }

    void fault(const char* call, const std::string& path, const char* key, const Draft& value,
               int64_t nth = 1) {
        Draft table = {{"call", call}, {"path", path}, {key, value}};
        if (nth > 1) table["nth"] = nth;
        draft_["fault"].push_back(anchored(table));
    }

    void failed_call(const Event& event, std::string_view error) {
        const std::string& message = event.message;
        if (const std::string request = request_of(event); !request.empty()) {
            const size_t close = message.rfind(')');
            const size_t number = message.find_last_of("(,", close);
            const auto said = close == std::string::npos
                                      ? std::nullopt
                                      : number_after(message.substr(number + 1), "");
            const int64_t result = said.value_or(-1);
            return answer(request, result > 0    ? result
                                   : result < -1 ? result & UINT32_MAX
                                                 : -std::max(1, errno_of(error)));
        }
        const char* name = errno_of(error) == 0 ? nullptr : strerrorname_np(errno_of(error));
        if (name == nullptr || ends_with(message, "std_udl_poll fail")) return;
        // Nothing waits, as a rule.
        if (event.step == "open_srinfo_last" && name == std::string_view("ENOENT")) return;
        for (const Call& call : kCalls) {
            if (message.find(call.said) == std::string::npos) continue;
            return fault(call.name, place_of(event, call.name), "error", name,
                         std::max<int64_t>(1, number_after(message, "seq# ").value_or(1)));
        }
    }

    static std::string request_of(const Event& event) {
        constexpr std::string_view kPrefix = "ERR! IOCTL_";
        if (starts_with(event.message, kPrefix)) {
            const std::string rest = event.message.substr(kPrefix.size());
            return rest.substr(0, rest.find(' '));
        }
        if (says(event, "get_log_dump", "ERR! ioctl fail")) return "GET_LOG_DUMP";
        if (says(event, "alloc_srinfo", "ioctl fail")) return "GET_SRINFO";
        return says(event, "restore_srinfo", "ioctl fail") ? "SET_SRINFO" : "";
    }

    // The path in a message, with anything in place of its time.
    static std::string path_in(const std::string& message) {
        const size_t begin = message.find('/');
        if (begin == std::string::npos) return "";
        const std::string path = message.substr(begin, message.find_first_of(" ),", begin) - begin);
        const std::string constant = without_chance(path);
        return constant == path ? path : constant + "_2*";
    }

    std::string place_of(const Event& event, std::string_view call) const {
        const std::string& message = event.message;
        const std::string path = path_in(message);
        // A new NV file has no name at first.
        if (event.step == "create_empty_nv" && !path.empty())
            return path.substr(0, path.rfind('/')) + "/*";
        if (!path.empty()) return path;
        if (event.step == "boot_wake_lock" && call == "open")
            return message.find("unlock") == std::string::npos ? "/sys/power/wake_lock"
                                                               : "/sys/power/wake_unlock";
        if (event.step == "std_dump_trigger_kernel_panic")
            return message.find("log_fd") != std::string::npos    ? "*/cpcrash_*_log_*"
                   : message.find("info_fd") != std::string::npos ? "*/cpcrash_*_info_*"
                                                                  : "*/cpcrash_*_dump_2*";
        for (const Place& place : kPlaces) {
            if (event.step != place.step) continue;
            if (place.path == std::string_view("link")) return link_;
            if (place.path == std::string_view("region")) return region_;
            if (place.path != std::string_view("image")) return place.path;
            return call == "write" ? "/dev/boot" : image_path();
        }
        return event.step.find("srinfo") != std::string::npos ? "*/last_sr_info_*" : "*";
    }

    std::string image_path() const {
        const auto nv = is_nv_.find(stage_);
        return nv != is_nv_.end() && nv->second ? "/mnt/*" : "/dev/block/*";
    }

    void silent_failure(const Event& event) {
        const std::string& message = event.message;
        for (const Silent& silent : kSilent) {
            if (says(event, silent.step, silent.start))
                fault(silent.call, silent.path, "error", silent.error);
        }
        if (says(event, "status_loop", "cp off ioctl fail")) {
            const int64_t result = number_after(message, "err=").value_or(-1);
            answer("POWER_OFF", result > 0 ? result : -5);
        }
        const auto wanted = number_after(message, "len ");
        for (const char* key : {"ERR! read ", "ERR! rcvd ", "ERR! sent "}) {
            const auto count = number_after(message, key);
            if (!count) continue;
            // Only the last piece of an image is shorter than the others.
            const bool sent = std::string_view(key) == "ERR! sent ";
            const bool last = !sent && wanted.value_or(0) % piece_ != 0;
            fault(sent ? "write" : "read", sent ? "/dev/boot" : image_path(), "cut", *count,
                  last ? pieces_ : 1);
        }
    }

    // A word or frame that was not as it must be; it was sent behind the last request.
    void deviation(const std::string& at, const Draft& what) {
        Draft table = {{"at", at}};
        table.update(what);
        table.update(line_of("after", events_, word_));
        draft_["loader"].push_back(table);
    }

    void loader(const Event& event) {
        const std::string& message = event.message;
        const auto number = [&](const char* key) {
            return unsigned_after(message, key).value_or(0);
        };
        if (says(event, "std_udl_req_resp", "ERR! resp "))
            deviation(fmt::format("0x{:04X}", number("exp ")), {{"say", number("resp ")}});
        if (says(event, "std_udl_poll", "ERR! poll fail") && message.back() == ')' &&
            message.find(", ") + message.find("!=") != 2 * std::string::npos)
            silence(message.find("TIMEOUT") != std::string::npos ? "silent" : "hang_up");
        if (!says(event, "std_ul_recv_data", "ERR! [step ")) return;
        const uint32_t step = number("[step ");
        const auto at = [&](uint32_t frame) { return fmt::format("{}.{}", step, frame); };
        if (number_after(message, "frame of ") && !number_after(message, "seq# "))
            deviation(at(next_frame()), {{"cut", number("frame of ")}});
        if (number_after(message, "cmd ")) deviation(at(next_frame()), {{"say", number("cmd ")}});
        if (number_after(message, "curr_frame "))
            deviation(at(number("seqn ")), {{"curr_frame", number("curr_frame ")}});
        if (number_after(message, " len "))
            deviation(at(number("seq# ")),
                      {{"len", number(" len ")}, {"cut", number("frame of ")}});
    }

    // What the boot loader owed is told by the lines behind.
    void silence(const char* kind) {
        const Draft what = {{kind, true}};
        for (size_t at = at_ + 1; at < std::min(at_ + 5, events_.size()); at++) {
            const Event& event = events_[at];
            if (const auto word = number_after(event.message, "expected:"))
                return deviation(fmt::format("0x{:04X}", *word), what);
            if (event.message.find("INFO std_ul") != std::string::npos)
                return deviation("info", what);
            if (event.message.find("REASON std_ul") != std::string::npos)
                return deviation("reason", what);
            if (event.step != "std_ul_recv_data") continue;
            return deviation(fmt::format("{}.{}", number_after(event.message, "[step ").value_or(1),
                                         next_frame()),
                             what);
        }
    }

    // The first frame of a step has a line of its own; the dump's file says how many more came.
    uint32_t next_frame() const {
        uint64_t saved = 0;
        bool begun = false;
        for (size_t at = word_; at < at_; at++)
            begun |= events_[at].message.find("] command = ") != std::string::npos;
        if (!begun) return 1;
        for (size_t at = word_; at > 0 && !says(events_[at], "dump", "Receive CP"); at--) {
            if (events_[at].step == "std_ul_recv_data")
                saved += unsigned_after(events_[at].message, "] saved = ").value_or(0);
        }
        const uint64_t size = saved_size(report_, Kind::kDump);
        return std::max<uint32_t>(
                2, static_cast<uint32_t>((size - std::min(size, saved)) / UDL_MSS) + 1);
    }

    const Events& events_;
    const Report& report_;
    Draft& draft_;
    size_t at_ = 0, word_ = 0;  // the line, and that of the last request over the link
    std::string link_ = "/dev/boot", region_ = "*";
    int64_t stage_ = -1, piece_ = 1, pieces_ = 1;
    std::map<int64_t, bool> is_nv_;
};

}  // namespace

void describe_failures(const Events& events, const Report& report, Draft& draft) {
    Failures(events, report, draft).run();
}

}  // namespace rvd::report
