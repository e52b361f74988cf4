// Silences and repetitions, which a list of lines hides.
#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "report/print/people.h"
#include "report/timeline/timeline.h"

namespace rvd::report {

namespace {

constexpr KernelTime kSilence = 10'000'000;
constexpr size_t kLongestBlock = 120;  // lines
constexpr size_t kShortestRepetition = 3;

// Each text as a number, so that two lines are compared at once.
std::vector<size_t> numbered(const std::vector<Event>& events) {
    std::map<std::string, size_t> numbers;
    std::vector<size_t> of;
    of.reserve(events.size());
    for (const Event& event : events)
        of.push_back(numbers.try_emplace(without_chance(event.text), numbers.size()).first->second);
    return of;
}

struct Block {
    size_t length = 0, times = 0;
};

// The block at `from` that repeats most, in lines.
Block repetition_at(const std::vector<size_t>& lines, size_t from) {
    Block best;
    for (size_t length = 1; length <= kLongestBlock && from + 2 * length <= lines.size();
         length++) {
        if (lines[from] != lines[from + length]) continue;
        size_t times = 1;
        const auto block = lines.begin() + static_cast<ptrdiff_t>(from);
        while (from + (times + 1) * length <= lines.size() &&
               std::equal(block, block + static_cast<ptrdiff_t>(length),
                          block + static_cast<ptrdiff_t>(times * length)))
            times++;
        if (times >= kShortestRepetition && times * length > best.times * best.length)
            best = {length, times};
    }
    return best;
}

bool says(const std::vector<Event>& events, size_t from, size_t length, const char* text) {
    return std::any_of(events.begin() + static_cast<ptrdiff_t>(from),
                       events.begin() + static_cast<ptrdiff_t>(from + length),
                       [&](const Event& event) { return event.text == text; });
}

std::string count_text(const std::vector<Event>& events, size_t from, const Block& block,
                       KernelTime span) {
    const std::string time = span > 0 ? " in " + people_span(span) : "";
    const size_t more = block.times - 1;
    if (says(events, from, block.length, "main: start boot fail"))
        return fmt::format("boot retried {} times{}", more, time);
    if (says(events, from, block.length, "status_loop: start_dump fail"))
        return fmt::format("dump tried again {} times{}", more, time);
    return block.length == 1
                   ? fmt::format("the line before {} times more{}", more, time)
                   : fmt::format("the {} lines before {} times more{}", block.length, more, time);
}

class Telling {
  public:
    explicit Telling(const std::vector<Event>& events)
        : events_(events), lines_(numbered(events)) {}

    std::vector<Entry> run() {
        size_t at = 0;
        while (at < events_.size()) {
            const Block block = repetition_at(lines_, at);
            if (block.times == 0) {
                event(at++);
                continue;
            }
            for (size_t i = 0; i < block.length; i++)
                event(at + i);
            const size_t end = at + block.times * block.length;
            const KernelTime span = span_between(at, end - block.length);
            entries_.push_back({Entry::Kind::kRepetition, nullptr, span,
                                count_text(events_, at, block, span)});
            at = end;
            keep_time(at - 1);
        }
        return std::move(entries_);
    }

  private:
    KernelTime span_between(size_t from, size_t to) const {
        return events_[from].at == kNoTime || events_[to].at == kNoTime
                       ? 0
                       : std::max<KernelTime>(0, events_[to].at - events_[from].at);
    }

    void keep_time(size_t at) {
        if (events_[at].at != kNoTime) last_ = events_[at].at;
    }

    void event(size_t at) {
        const Event& event = events_[at];
        if (event.device_started) {
            entries_.push_back({Entry::Kind::kStart, nullptr, 0, "the device started again"});
            last_ = kNoTime;
        }
        if (event.at != kNoTime && last_ != kNoTime && event.at - last_ >= kSilence) {
            const KernelTime span = event.at - last_;
            entries_.push_back(
                    {Entry::Kind::kSilence, nullptr, span, people_span(span) + " of silence"});
        }
        entries_.push_back({Entry::Kind::kEvent, &event, 0, ""});
        keep_time(at);
    }

    const std::vector<Event>& events_;
    std::vector<size_t> lines_;
    std::vector<Entry> entries_;
    KernelTime last_ = kNoTime;
};

}  // namespace

std::vector<Entry> tell(const std::vector<Event>& events) {
    return Telling(events).run();
}

}  // namespace rvd::report
