// The sequence diagram of a story, drawn with rvd-report's code.
#include "lab/run/story.h"
#include "report/print/people.h"
#include "report/print/picture.h"

namespace rvd::lab {

namespace {

constexpr Time kSilence = 10 * kSecond;

report::Actor actor_of(const std::string& name) {
    return name == "daemon"   ? report::Actor::kDaemon
           : name == "driver" ? report::Actor::kDriver
           : name == "loader" ? report::Actor::kLoader
                              : report::Actor::kPhone;
}

}  // namespace

std::string Story::picture(const std::string& title) const {
    std::vector<report::Message> messages;
    Time last = 0;
    for (const Message& message : messages_) {
        const auto says = [&](const char* text) {
            return message.text.find(text) != std::string::npos;
        };
        // Success in setting the log directory's group is logged as an error, too.
        const bool failure =
                (says("ERR!") && !says(" changed(0)")) || message.from == std::string("lab");
        if (*message.to == '\0' && message.from == std::string("daemon") && !failure) continue;
        if (message.at - last >= kSilence) {
            report::Message silence;
            silence.text = report::people_span((message.at - last) / 1000) + " of silence";
            silence.band = true;
            messages.push_back(silence);
        }
        last = message.at;
        const report::Actor from = actor_of(message.from);
        messages.push_back({message.at / 1000, from,
                            *message.to == '\0' ? from : actor_of(message.to), message.text,
                            failure, false});
    }
    return report::picture(title, messages);
}

}  // namespace rvd::lab
