#include "lab/run/stage.h"

#include <fmt/format.h>
#include <sys/wait.h>

namespace rvd::lab {

void RunStage::run_due_events() {
    while (end_.empty() && !events_.empty() && events_.begin()->first <= now()) {
        const auto what = std::move(events_.begin()->second);
        events_.erase(events_.begin());
        what();
    }
}

void RunStage::tell_start() {
    std::string words = "starts the daemon: rvd";
    for (const std::string& argument : scenario_.args)
        words += " " + argument;
    story_.tell("phone", "daemon", words);
}

void RunStage::take_end(int status) {
    end_ = WIFEXITED(status) ? fmt::format("exit {}", WEXITSTATUS(status))
                             : fmt::format("signal {}", WTERMSIG(status));
    story_.tell("daemon", "", WIFEXITED(status) ? "exits" : "dies");
}

void RunStage::check_opens(Node node, size_t open) {
    // One descriptor for the event wait, and one for a boot or request.
    if (open > (node == Node::boot ? 2 : 1))
        story_.violation(fmt::format("the {} node is open {} times", node_name(node), open));
}

}  // namespace rvd::lab
