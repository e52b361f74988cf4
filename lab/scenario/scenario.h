// The content of a scenario file: a base and one or more `[[case]]` tables that are merged over it
// key by key. Every case is one run. `rvd-lab keys` prints all keys with their meaning.
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "lab/base.h"

namespace rvd::lab {

constexpr char kLogDirectory[] = "/data/vendor/log/rvd";

// Selects `count` occurrences of something from the nth on (0: all that follow). With `after`, only
// those are counted that follow the `after_count`th matching line of the daemon's log.
struct Trigger {
    int64_t nth = 1, count = 1, after_count = 1;
    std::string after = {};

    // Counts an occurrence and returns whether it is selected.
    bool fires() const {
        if (!after.empty() && after_seen < after_count) return false;
        seen++;
        const bool now = seen >= nth && (count == 0 || seen < nth + count);
        fired = fired || now;
        return now;
    }
    void note_line(const std::string& line) const { after_seen += matches(after, line) ? 1 : 0; }

    // The state during a run.
    mutable int64_t seen = 0, after_seen = 0;
    mutable bool fired = false;
};

// Counts an occurrence for each of `things` that `applies` and returns the first that fires, or
// null.
template <class Thing, class Applies>
const Thing* first_triggered(const std::vector<Thing>& things, const Applies& applies) {
    const Thing* first = nullptr;
    for (const Thing& thing : things) {
        if (applies(thing) && thing.trigger.fires() && first == nullptr) first = &thing;
    }
    return first;
}

// An entry of the firmware's table of contents; missing values have defaults.
struct FirmwareEntry {
    std::string name;
    std::optional<int64_t> b_off, m_off, crc, size;
};

struct Firmware {
    std::string image;  // a real image to use as the partition, instead of `entries`
    std::vector<FirmwareEntry> entries;
    std::optional<int64_t> truncate;  // the partition ends here
    std::optional<int64_t> nv_size;   // of the NV file; negative: there is none
};

struct Answer {
    std::string request;
    Trigger trigger;
    int64_t result = 0;
};

constexpr const char* kRegionNames[] = {"shmem", "vss", "hxlg", "cp_btl", "databuf", "l2b"};

struct Region {
    int64_t size = 0;
    std::optional<int64_t> delivers;  // less or more than `size`
    int64_t packet = 4096;
};

struct DriverSetup {
    int64_t state = 0;
    std::string version = "lnkm 4.19";
    int64_t owner = 0;
    std::string reason = "CP assert";
    std::string srinfo;
    std::string panic = "upload";  // or "returns"
    std::vector<Answer> answers;
    std::map<std::string, Region> regions;
};

struct DumpSetup {
    std::vector<int64_t> steps;
    std::string reason = "prefetch abort in task L1C";
};

// One deviation of the boot loader, at a packet that it is about to send.
struct Quirk {
    std::string at;
    Trigger trigger;
    std::optional<int64_t> word, curr_frame, len, cut;
    int64_t extra = 0;
    Time late = 0;
    bool twice = false, silent = false, hang_up = false;
};

struct Fault {
    std::string call, path = "*", error;
    Trigger trigger;
    std::optional<int64_t> cut;
    bool hang_up = false;
    enum class Stop { no, before, after } stop = Stop::no;  // kill or cut at this call
};

struct Event {
    // When: exactly one of these.
    std::optional<Time> at;
    bool waits = false, upload = false;
    std::string line, request;
    int64_t occurrence = 1;  // of the line or request
    Time after = 0;
    // What happens.
    std::optional<int64_t> state;
    std::map<std::string, std::string> set;
    bool restart = false, reboot = false, stop = false;
};

struct FileExpectation {
    std::string path, equals, mode, text;
    std::optional<int64_t> size;
    int64_t number = 1;
};

struct Expectations {
    std::vector<std::string> log, no_log, requests, no_requests, story, absent;
    bool whole_story = false;
    std::map<std::string, int64_t> times;
    std::vector<FileExpectation> files;
    std::map<std::string, std::string> properties;
    std::string end = "waits";
    std::optional<Time> lasts;
};

struct Scenario {
    std::string name, about, modem = "tq720";
    std::string program;  // beside the daemon's binary, to run instead of it; "": the daemon
    std::vector<std::string> args;
    std::string cmdline = "console=ram androidboot.debug_level=0x4945";
    std::map<std::string, std::string> properties;
    Time start = 0;
    Time limit = 600 * kSecond;
    int64_t seed = 1;

    std::map<std::string, std::string> files;
    std::vector<std::string> missing, read_only;
    std::map<std::string, int64_t> free_mb;
    std::optional<int64_t> disk, ring;
    bool log_group = true;

    Firmware firmware;
    DriverSetup driver;
    DumpSetup dump;
    std::vector<Quirk> loader;
    std::vector<Fault> faults;
    std::vector<Event> timeline;
    Expectations expect;

    bool external() const { return modem == "vk880"; }
    std::string prefix() const { return external() ? "nr" : "umts"; }
    std::string nv_path() const {
        return external() ? "/mnt/vendor/efs/nv_5g_data.bin" : "/mnt/vendor/efs/nv_data.bin";
    }
};

// Visits the triggers of all faults, answers and quirks.
template <class Visit>
void for_each_trigger(const Scenario& scenario, const Visit& visit) {
    for (const Fault& fault : scenario.faults)
        visit(fault.trigger);
    for (const Answer& answer : scenario.driver.answers)
        visit(answer.trigger);
    for (const Quirk& quirk : scenario.loader)
        visit(quirk.trigger);
}

// The cases of a file, or of a text that is called `name` in messages. Throw Error with the file,
// the line and what is allowed there.
std::vector<Scenario> read_scenarios(const std::string& path);
std::vector<Scenario> parse_scenarios(const std::string& text, const std::string& name);

// All keys as a JSON schema.
nlohmann::ordered_json scenario_schema();

}  // namespace rvd::lab
