// Which files belong together: by modem, and by the times in their names.
#include <algorithm>
#include <map>

#include "report/incident/incident.h"

namespace rvd::report {

namespace {

// The kernel log is saved before the crash files are named; between the two the log directory is
// tried for up to 5 s, twice.
constexpr DeviceTime kBeforeNaming = 120;
// From a reset to the boot that follows it; a failed dump is followed by one sooner.
constexpr DeviceTime kUntilNextBoot = 120;
// From the end of a failed dump to the next try.
constexpr DeviceTime kUntilNextTry = 10;

DeviceTime minute_of(DeviceTime time) {
    return time - time % 60;
}

bool names_a_dump(Kind kind) {
    return kind == Kind::kCrashLog || kind == Kind::kInfo || kind == Kind::kDump;
}

// Only the external modem's dump saves this one, without the modem's name.
std::string modem_of(const Name& name) {
    return name.kind == Kind::kKernelDmesg ? "nr" : name.modem;
}

// The incidents of one modem, by the time they begin.
class Incidents {
  public:
    explicit Incidents(std::string modem) : modem_(std::move(modem)) {}

    void add(File file) {
        const Kind kind = file.name.kind;
        const DeviceTime time = file.name.time;
        Incident* incident = nullptr;
        if (names_a_dump(kind)) {
            incident = &by_time_[time];
        } else if (kind == Kind::kRegion) {
            incident = crash_before(time + 59);
        } else if (ends_a_dump(kind)) {
            incident = crash_before(time);
        } else if (kind == Kind::kKernelBefore) {
            incident = crash_about_to_begin(time);
        } else {
            incident = reset_of(kind, time);
        }
        if (incident == nullptr) incident = &by_time_[time];
        if (is_of_a_crash(kind)) incident->crash = true;
        incident->files.push_back({std::move(file), {}});
    }

    void hand_over(std::vector<Incident>& all) {
        Incident* before = nullptr;
        for (auto& [time, incident] : by_time_) {
            complete(incident, time);
            incident.again = before != nullptr && before->crash && incident.crash &&
                             follows(*before, incident);
            before = &incident;
        }
        for (auto& [time, incident] : by_time_)
            all.push_back(std::move(incident));
    }

  private:
    Incident* crash_before(DeviceTime time) {
        auto next = by_time_.upper_bound(time);
        while (next != by_time_.begin()) {
            --next;
            if (next->second.crash && !begins_after(next->second, time)) return &next->second;
        }
        return nullptr;
    }

    // The minute of a crash may have begun before the crash did.
    static bool begins_after(const Incident& crash, DeviceTime time) {
        bool after = false;
        for (const JudgedFile& file : crash.files) {
            if (file.file.name.kind != Kind::kKernelBefore) continue;
            if (file.file.name.time <= time) return false;
            after = true;
        }
        return after;
    }

    Incident* crash_about_to_begin(DeviceTime time) {
        const auto next = by_time_.lower_bound(minute_of(time));
        if (next != by_time_.end() && next->second.crash && next->first - time <= kBeforeNaming)
            return &next->second;
        // A dump that got no further than this, tried again.
        Incident* before = crash_before(time);
        return before != nullptr && time - last_time(*before) <= kUntilNextTry ? before : nullptr;
    }

    Incident* reset_of(Kind kind, DeviceTime time) {
        if (kind == Kind::kKernelOnly) return nullptr;
        auto next = by_time_.upper_bound(time);
        while (next != by_time_.begin()) {
            --next;
            Incident& incident = next->second;
            if (kind == Kind::kKernelBooted && incident.has(Kind::kKernelBoot) &&
                !incident.has(Kind::kKernelBooted))
                return &incident;
            if (incident.crash && !ended_before(incident, time)) continue;
            if (time - last_time(incident) > kUntilNextBoot) break;
            return &incident;
        }
        return nullptr;
    }

    static bool ended_before(const Incident& crash, DeviceTime time) {
        return std::any_of(crash.files.begin(), crash.files.end(), [&](const JudgedFile& file) {
            return ends_a_dump(file.file.name.kind) && file.file.name.time <= time;
        });
    }

    static DeviceTime last_time(const Incident& incident) {
        DeviceTime last = 0;
        for (const JudgedFile& file : incident.files)
            last = std::max(last, file.file.name.time + (file.file.name.to_the_minute ? 59 : 0));
        return last;
    }

    void complete(Incident& incident, DeviceTime key) const {
        incident.modem = modem_;
        incident.time = key;
        incident.to_the_minute = true;
        for (const JudgedFile& file : incident.files) {
            const Name& name = file.file.name;
            if (name.kind == Kind::kInfo) incident.type = name.detail;
            const bool begins = name.kind == Kind::kKernelBefore || !incident.crash;
            if (!begins || name.to_the_minute) continue;
            if (incident.to_the_minute || name.time < incident.time) incident.time = name.time;
            incident.to_the_minute = false;
        }
        std::stable_sort(incident.files.begin(), incident.files.end(),
                         [](const JudgedFile& a, const JudgedFile& b) {
                             return a.file.name.kind < b.file.name.kind;
                         });
    }

    static bool follows(const Incident& before, const Incident& next) {
        DeviceTime failed = -1;
        for (const JudgedFile& file : before.files) {
            if (file.file.name.kind == Kind::kKernelFail)
                failed = std::max(failed, file.file.name.time);
        }
        return failed >= 0 && next.time - failed <= kUntilNextTry;
    }

    std::string modem_;
    std::map<DeviceTime, Incident> by_time_;
};

// Files that begin an incident come before those that are added to one.
int rank(Kind kind) {
    if (names_a_dump(kind)) return 0;
    if (kind == Kind::kKernelBefore) return 1;
    if (kind == Kind::kRegion) return 2;
    return is_of_a_crash(kind) ? 3 : 4;
}

}  // namespace

Report group(std::vector<File> files, const std::string& path) {
    Report report;
    report.path = path;
    std::vector<File> timed;
    for (File& file : files) {
        if (file.name.time < 0)
            report.others.push_back({std::move(file), {}});
        else
            timed.push_back(std::move(file));
    }
    std::stable_sort(timed.begin(), timed.end(), [](const File& a, const File& b) {
        const int first = rank(a.name.kind), second = rank(b.name.kind);
        return first != second ? first < second
                               : std::make_pair(a.name.time, a.name.kind) <
                                         std::make_pair(b.name.time, b.name.kind);
    });
    std::map<std::string, Incidents> modems;
    for (File& file : timed) {
        const std::string modem = modem_of(file.name);
        modems.try_emplace(modem, modem).first->second.add(std::move(file));
    }
    for (auto& [modem, incidents] : modems)
        incidents.hand_over(report.incidents);
    std::stable_sort(report.incidents.begin(), report.incidents.end(),
                     [](const Incident& a, const Incident& b) { return a.time < b.time; });
    return report;
}

}  // namespace rvd::report
