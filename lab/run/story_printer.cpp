#include "lab/run/story_printer.h"

#include <fmt/core.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace rvd::lab {

namespace {

constexpr size_t kLeastText = 20;
constexpr Time kLongPause = kSecond;
constexpr char kBold[] = "\033[1m";
constexpr char kDim[] = "\033[2m";
constexpr char kPlain[] = "\033[0m";

struct Pattern {
    const char* from;
    const char* text;
    const char* title;  // of the chapter that it begins; null: only a line of a brief story
};

const Pattern kPatterns[] = {
        {"phone", "starts the daemon: *", "The phone is switched on"},
        {"phone", "reboots", "The phone reboots"},
        {"phone", "property sys.shutdown.requested = 1", "The phone is shut down"},
        {"daemon", "POWER_ON*", "The modem boots"},
        {"driver", "the modem is in state 1 *", "The modem resets"},
        {"driver", "the modem is in state 3 *", "The modem resets"},
        {"driver", "the modem is in state 2 *", "The modem crashes"},
        {"driver", "the modem is in state 9 *", "The modem crashes"},
        {"daemon", "POWER_RESET dump*", "The modem is dumped"},
        {"kernel", "panics*", "The kernel panics"},

        {"daemon", "main: Boot up process done!!!", nullptr},
        {"daemon", "status_loop: unknown Modem status", nullptr},
        {"daemon", "*wait onrestart by rild", nullptr},
        {"daemon", "*: DUMP * saved", nullptr},
        {"daemon", "TRIGGER_KERNEL_PANIC *", nullptr},
        {"daemon", "status_loop: shutdown", nullptr},
};

const char* colour_of(const std::string& actor) {
    if (actor == "driver") return "\033[36m";
    if (actor == "loader") return "\033[35m";
    return actor == "phone" || actor == "kernel" ? "\033[33m" : "";
}

// One line without control characters.
std::string on_one_line(std::string text) {
    text.erase(text.find_last_not_of('\n') + 1);
    for (char& c : text)
        c = c == '\n' || c == '\t'                             ? ' '
            : static_cast<unsigned char>(c) < ' ' || c == 0x7F ? '?'
                                                               : c;
    return text;
}

int width_of(int fd) {
    winsize size{};
    if (isatty(fd) == 0) return 0;
    return ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

bool is_capable_terminal(int fd) {
    const char* const type = getenv("TERM");
    return isatty(fd) != 0 && type != nullptr && strcmp(type, "dumb") != 0;
}

StoryStyle choose_style(FILE* out, const std::string& colours) {
    const char* const no_color = getenv("NO_COLOR");
    const bool wanted =
            is_capable_terminal(fileno(out)) && (no_color == nullptr || *no_color == '\0');
    return {colours == "always" || (colours == "auto" && wanted), false, width_of(fileno(out))};
}

void StoryPrinter::begin(const std::string& about) {
    if (out_ == nullptr) return;
    print("", colour(kBold), about);
    print("", "",
          "Columns: seconds on the phone's clock, sender (-> receiver), message. daemon: rvd "
          "itself; "
          "driver, loader: models of the kernel's modem driver and of the modem's boot loader; "
          "phone, kernel: the rest of the virtual phone.");
}

void StoryPrinter::line(Time now, const char* from, const char* to, const std::string& text) {
    if (out_ == nullptr) return;
    const auto found =
            std::find_if(std::begin(kPatterns), std::end(kPatterns), [&](const Pattern& pattern) {
                return strcmp(pattern.from, from) == 0 && matches(pattern.text, text);
            });
    const bool known = found != std::end(kPatterns);
    // Only the first start of the daemon begins a chapter.
    const bool again = has_chapter_ && found == std::begin(kPatterns);
    const bool chapter = known && found->title != nullptr && !again;
    if (chapter) heading(now, found->title);
    if (style_.brief && (!known || found->title != nullptr)) return;
    if (!style_.brief && !chapter && has_chapter_ && now - last_ >= kLongPause)
        print(std::string(14, ' '), colour(kDim),
              fmt::format("{:.6g} s later", seconds(now - last_)));
    last_ = now;
    const std::string who = *to != '\0' ? fmt::format("{} -> {}", from, to) : from;
    print(fmt::format("{:12.6f}  {:<16}  ", seconds(now - start_), who),
          style_.colours ? colour_of(from) : "", on_one_line(text));
}

void StoryPrinter::heading(Time now, const char* title) {
    const time_t moment = now / kSecond;
    tm parts{};
    char clock[sizeof("2020-10-01 12:30:00")];
    strftime(clock, sizeof(clock), "%F %T", gmtime_r(&moment, &parts));
    if (!style_.brief) fmt::print(out_, "\n");
    print("", colour(kBold), fmt::format("{}  {}", clock, title));
    has_chapter_ = true;
}

void StoryPrinter::print(const std::string& columns, const char* colour, const std::string& text) {
    const auto width = static_cast<size_t>(style_.width);
    const size_t room = width == 0                            ? text.size() + 1
                        : width > columns.size() + kLeastText ? width - columns.size()
                                                              : kLeastText;
    fmt::print(out_, "{}{}", colour, columns);
    size_t at = 0;
    while (text.size() - at > room) {
        const size_t blank = text.rfind(' ', at + room);
        const size_t end = blank == std::string::npos || blank <= at ? at + room : blank;
        fmt::print(out_, "{}\n{:{}}", text.substr(at, end - at), "", columns.size());
        at = end + (text[end] == ' ' ? 1 : 0);
    }
    fmt::print(out_, "{}", text.substr(at));
    fmt::print(out_, "{}\n", *colour != '\0' ? kPlain : "");
    fflush(out_);
}

}  // namespace rvd::lab
