#include "lab/run/backend.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "lab/phone/phone.h"
#include "lab/run/run.h"

namespace rvd::lab {

RunBackend::RunBackend(const Scenario& scenario, const Phone& phone, Story& story,
                       const RunOptions& options)
    : scenario_(scenario),
      phone_(phone),
      story_(story),
      options_(options),
      modem_(make_modem({scenario, phone.partition(), *this, story})) {}

bool RunBackend::reboot() {
    phone_.clear_properties();
    modem().reboot();
    start_daemon();
    return true;
}

std::map<int, std::string> RunBackend::descriptors() const {
    std::map<int, std::string> open;
    std::error_code ignored;
    for (const auto& entry :
         std::filesystem::directory_iterator(fmt::format("/proc/{}/fd", daemon()), ignored)) {
        const int fd = std::stoi(entry.path().filename());
        const std::string path = path_of(fd);
        if (fd > STDERR_FILENO && !path.empty() && path != "/dev/kmsg") open[fd] = path;
    }
    return open;
}

std::vector<std::string> RunBackend::open_paths() const {
    std::vector<std::string> paths;
    for (const auto& [fd, path] : descriptors())
        paths.push_back(path);
    std::sort(paths.begin(), paths.end());
    return paths;
}

void RunBackend::run_due_events() {
    while (end_.empty() && !events_.empty() && events_.begin()->first <= now()) {
        const auto what = std::move(events_.begin()->second);
        events_.erase(events_.begin());
        what();
    }
}

void RunBackend::check_timeout() {
    if (std::chrono::steady_clock::now() - began_ <= std::chrono::seconds(options_.timeout)) return;
    story_.violation("the run took longer than {} s of real time", options_.timeout);
    stop("timeout");
}

void RunBackend::enter_upload_mode() {
    story_.add_message("kernel", "", "panics: the device goes to upload mode");
    if (!on_upload || !on_upload()) stop("upload");
}

void RunBackend::report_start() {
    std::string words = "starts the daemon: rvd";
    for (const std::string& argument : scenario_.args)
        words += " " + argument;
    story_.add_message("phone", "daemon", words);
}

void RunBackend::record_exit(int status) {
    end_ = WIFEXITED(status) ? fmt::format("exit {}", WEXITSTATUS(status))
                             : fmt::format("signal {}", WTERMSIG(status));
    story_.add_message("daemon", "", WIFEXITED(status) ? "exits" : "dies");
}

void RunBackend::check_open_count(Node node, size_t open) {
    // One descriptor for the event wait, and one for a boot or request.
    if (open > (node == Node::boot ? 2 : 1))
        story_.violation("the {} node is open {} times", node_name(node), open);
}

}  // namespace rvd::lab
