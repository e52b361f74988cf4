#include "lab/scenario/scenario.h"

#include <fmt/format.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "lab/gate/table.h"
#include "lab/modem/modem.h"
#include "lab/scenario/reader.h"

namespace rvd::lab {

namespace {

constexpr int64_t kLargestFile = 16 << 20;

std::vector<std::string> errno_names() {
    std::vector<std::string> names;
    for (int number = 1; number < 134; number++) {
        if (const char* name = strerrorname_np(number)) names.emplace_back(name);
    }
    return names;
}

// What a story shows as requests: those to the driver and some system calls.
std::vector<std::string> request_words() {
    std::vector<std::string> words = request_names();
    words.insert(words.end(), {"link", "prctl", "setuid", "capset", "sync"});
    return words;
}

std::vector<std::string> content_names() {
    std::vector<std::string> names(std::begin(kRegionNames), std::end(kRegionNames));
    names.insert(names.end(), {"dump", "erased"});
    return names;
}

const Constraint kFileSize = between(0, kLargestFile), kWord = between(0, UINT32_MAX),
                 kSmall = between(0, INT32_MAX), kCount = between(1, INT32_MAX),
                 kPacket = between(0, 8192), kSigned = between(INT64_MIN, INT64_MAX);

// No component of a path is empty, "." or "..", so that a run stays within the phone's directories.
const std::string kComponent = "(\\.?[^./][^/]*|\\.\\.[^/]+)";
const std::string kPlainComponent = "(\\.?[^[*?./][^[*?/]*|\\.\\.[^[*?/]+)";
const Constraint kPhonePath = {
        "a path of the phone: expected an absolute path without \"..\" in /data, /dev, "
        "/efs, /mnt or /sys",
        "/(data|dev|efs|mnt|sys)(/" + kComponent + ")*/?"};
const Constraint kFilePattern = {
        "a path without \"..\" of which only the last component may be a pattern",
        "/?(" + kPlainComponent + "/)*" + kComponent};
const Constraint kMode = {"a mode of four octal digits, as \"0664\"", "[0-7]{4}"};
const Constraint kPacketName = {
        "a packet: a word as \"0xA00D\", \"info\", \"reason\" or step.frame as \"1.3\"",
        "0x[0-9A-F]{4}|info|reason|[0-9]+\\.[0-9]+"};
const Constraint kEnd = {
        "an end: \"waits\", \"parked\", \"limit\", \"upload\", \"stop\" or \"exit N\"",
        "waits|parked|limit|upload|stop|exit (1?[0-9]?[0-9]|2[0-4][0-9]|25[0-5])"};
const Constraint kDate = {"a time as \"2020-10-01 12:30:00\"",
                          "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"};
// Android's rule for names; it excludes "/".
const Constraint kProperty = {"a property's name", "[a-zA-Z0-9_:@-]+(\\.[a-zA-Z0-9_:@-]+)*"};
const Constraint kProperties = named(kProperty), kPhoneFiles = named(kPhonePath),
                 kFillers = named(kPhonePath, kFileSize);
const Constraint kModem = {"modem", "", {"tq720", "vk880"}},
                 kProgram = {"program", "", {"rvd-check"}},
                 kPanic = {"panic", "", {"upload", "returns"}};
const Constraint kRegion = {"region", "", {std::begin(kRegionNames), std::end(kRegionNames)}};

// Parses "NAME:SIZE@B_OFF>M_OFF#CHECKSUM". Returns false on an error.
bool read_entry(const std::string& word, FirmwareEntry& entry) {
    constexpr char kMarks[] = ":@>#";
    std::optional<int64_t>* const values[] = {&entry.size, &entry.b_off, &entry.m_off, &entry.crc};
    size_t at = word.find_first_of(kMarks);
    entry.name = word.substr(0, at);
    while (at < word.size()) {
        std::optional<int64_t>& value = *values[strchr(kMarks, word[at]) - kMarks];
        char* end = nullptr;
        const unsigned long long number = strtoull(&word[at + 1], &end, 0);
        const int shift = *end == 'K' ? 10 : *end == 'M' ? 20 : 0;
        end += shift != 0;
        if (value || isdigit(word[at + 1]) == 0 || number > UINT32_MAX >> shift) return false;
        if (*end != '\0' && strchr(kMarks, *end) == nullptr) return false;
        value = static_cast<int64_t>(number << shift);
        at = static_cast<size_t>(end - word.data());
    }
    return !entry.name.empty();
}

// Returns the error in the table, or "".
std::string read_table(const std::string& text, std::vector<FirmwareEntry>& entries) {
    constexpr size_t kLongestName = 12;
    std::istringstream in(text);
    entries.clear();
    for (std::string word; in >> word;) {
        if (!read_entry(word, entries.emplace_back()))
            return fmt::format("\"{}\" is not an entry: expected NAME:SIZE@B_OFF>M_OFF#CHECKSUM",
                               word);
        if (entries.back().name.size() > kLongestName)
            return fmt::format("\"{}\" is longer than {} characters", entries.back().name,
                               kLongestName);
    }
    return entries.empty() ? "a table has at least one entry" : "";
}

// "2020-10-01 12:30:00", UTC.
Time read_date(const std::string& text) {
    tm parts{};
    strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    return timegm(&parts) * kSecond;
}

}  // namespace

static void keys(Reader& reader, Trigger& trigger) {
    reader.key("nth", trigger.nth, "the first occurrence that it applies to (1)", kCount)
            .key("count", trigger.count,
                 "how many occurrences it applies to; 0: all that follow (1)", kSmall)
            .key("after", trigger.after,
                 "count occurrences only after this line of the daemon's log (the start)")
            .key("said", trigger.after_count, "how often that line must have been logged (1)",
                 kCount);
}

// The table "phone".
struct PhoneKeys {
    Scenario& scenario;
};

static void keys(Reader& reader, PhoneKeys& phone) {
    Scenario& s = phone.scenario;
    std::map<std::string, int64_t> fillers;
    reader.key("files", s.files, "files present at the start: path = content", kPhoneFiles)
            .key("fillers", fillers, "files of repeated 'x' at the start: path = bytes", kFillers)
            .key("missing", s.missing, "paths (nodes, directories, files) that don't exist",
                 kPhonePath)
            .key("read_only", s.read_only, "directories on a read-only file system", kPhonePath)
            .key("free", s.free_mb, "free space by path prefix, in MB (20000)", kSmall)
            .key("disk", s.disk,
                 "size of the data disk; files use it up, and writes beyond it fail with ENOSPC")
            .key("ring", s.ring,
                 "size of the kernel's log ring, cut or filled up to it (what was logged)",
                 kFileSize)
            .key("log_group", s.log_group, "the group \"log\" exists (true)");
    for (const auto& [path, size] : fillers)
        s.files[path].assign(static_cast<size_t>(size), 'x');
}

static void keys(Reader& reader, Firmware& firmware) {
    std::string table;
    reader.key("table", table,
               "the table of contents, \"TOC BOOT:96K MAIN:5000 NV\": each entry's name, then, "
               "optionally, :size (512), @offset in its file, >offset in modem memory (one after "
               "the other), #checksum");
    const std::string why = read_table(table, firmware.entries);
    reader.require_that(why.empty(), why);
    reader.key("truncate", firmware.truncate, "cut the partition off after so many bytes", kWord)
            .key("image", firmware.image,
                 "a real image to use as the partition; a path from the current directory")
            .require_that(firmware.entries.empty() && !firmware.truncate,
                          "\"image\" excludes \"table\" and \"truncate\"");
    reader.key("nv_size", firmware.nv_size, "bytes in the NV file; -1: no file (size of the entry)",
               between(-1, kLargestFile));
}

static void keys(Reader& reader, Answer& answer) {
    static const Constraint request = {"request", "", request_names()};
    reader.key("request", answer.request, "its name, as \"POWER_ON\"", request)
            .key("result", answer.result, "result; negative: a negated errno", kSigned)
            .require_one({"request"});
    reader.require_one({"result"});
    keys(reader, answer.trigger);
}

static void keys(Reader& reader, Region& region) {
    reader.key("size", region.size, "bytes announced", kWord)
            .key("delivers", region.delivers, "bytes delivered (as announced)", kWord)
            .key("packet", region.packet, "bytes per read (4096)", between(1, 8192));
}

static void keys(Reader& reader, DriverSetup& driver) {
    reader.key("state", driver.state, "modem state at the start (0)", kSmall)
            .key("version", driver.version, "version text, at most 20 characters")
            .key("owner", driver.owner, "who crashed the modem (0)", between(INT32_MIN, INT32_MAX))
            .key("reason", driver.reason, "the driver's crash text")
            .key("srinfo", driver.srinfo, "text of the silent-reset record (none)")
            .key("panic", driver.panic,
                 "a panic request: \"upload\" enters upload mode, \"returns\" does nothing "
                 "(upload)",
                 kPanic)
            .key("answer", driver.answers, "requests that get another result")
            .key("regions", driver.regions, "modem memory regions", named(kRegion));
}

static void keys(Reader& reader, DumpSetup& dump) {
    reader.key("steps", dump.steps, "bytes of each step", kWord)
            .key("reason", dump.reason, "the modem's crash text");
}

static void keys(Reader& reader, Quirk& quirk) {
    reader.key("at", quirk.at, "word (\"0xA00D\"), \"info\", \"reason\", or step.frame (\"1.3\")",
               kPacketName)
            .key("say", quirk.word, "send another word, or another command word in the frame",
                 kWord)
            .key("curr_frame", quirk.curr_frame, "send another frame number", kWord)
            .key("len", quirk.len, "send another payload length", kWord)
            .key("cut", quirk.cut, "cut the packet to so many bytes", kPacket)
            .key("extra", quirk.extra, "append so many bytes to the packet", kPacket)
            .key("late", quirk.late, "delay the packet", kSpan)
            .key("twice", quirk.twice, "send the packet twice")
            .key("silent", quirk.silent, "send neither the packet nor anything after it")
            .key("hang_up", quirk.hang_up, "hang up instead")
            .require_one({"at"});
    keys(reader, quirk.trigger);
}

static void keys(Reader& reader, Fault& fault) {
    static const Constraint call = {"call", "", fault_calls()},
                            error = {"errno", "", errno_names()};
    reader.key("call", fault.call, "system call: open, read, write, fsync, mkdir, mmap, ...", call)
            .key("path", fault.path, "only on paths that match (*)")
            .key("error", fault.error, "the errno that it fails with, as \"EIO\"", error)
            .key("cut", fault.cut, "read or write only so many bytes; 0: end of file")
            .key("hang_up", fault.hang_up, "the node hangs up during the call")
            .require_one({"call"});
    reader.require_one({"error", "cut", "hang_up"});
    keys(reader, fault.trigger);
}

static void keys(Reader& reader, Event& event) {
    static const Constraint request = {"request", "", request_words(), true};
    reader.key("at", event.at, "when: this long after the start", kSpan)
            .key("waits", event.waits, "when: the daemon waits for an event")
            .key("line", event.line, "when: the daemon logs this")
            .key("request", event.request, "when: the driver or the link sees this", request)
            .key("said", event.occurrence,
                 "when: how often that line or request must occur after the previous event (1)",
                 kCount)
            .key("upload", event.upload, "when: the device enters upload mode")
            .key("after", event.after, "and then this much later", kSpan)
            .key("state", event.state, "the modem changes to this state", kSmall)
            .key("set", event.set, "these properties change", kProperties)
            .key("restart", event.restart, "the daemon is killed and started again")
            .key("reboot", event.reboot,
                 "the device reboots: the daemon is restarted, non-persistent properties are reset")
            .key("stop", event.stop, "the run ends here")
            .require_one({"at", "waits", "line", "request", "upload"});
    reader.require_any({"state", "set", "restart", "reboot", "stop"});
}

static void keys(Reader& reader, FileExpectation& file) {
    static const Constraint content = {"content", "", content_names()};
    reader.key("path", file.path,
               "path, relative to the log directory unless it begins with a slash; its last "
               "component "
               "may be a pattern",
               kFilePattern)
            .key("number", file.number, "how many such files (1)", kSmall)
            .key("size", file.size, "bytes")
            .key("mode", file.mode, "access mode, as \"0664\"", kMode)
            .key("text", file.text, "content, a pattern")
            .key("equals", file.equals,
                 "content: \"dump\", \"erased\" or a region's name; with `size`, only its first "
                 "bytes",
                 content)
            .require_one({"path"});
}

static void keys(Reader& reader, Expectations& expect) {
    static const Constraint request = {"request", "", request_words(), true};
    reader.key("log", expect.log,
               "lines that the daemon logs, in this order, with others in between")
            .key("no_log", expect.no_log, "lines that it must not log")
            .key("times", expect.times, "how often it logs a line: line = number")
            .key("requests", expect.requests,
                 "requests and link words, in this order, with others in between", request)
            .key("no_requests", expect.no_requests, "requests that must not occur", request)
            .key("story", expect.story,
                 "lines and requests in order, each after its time: \"4.5 s POWER_OFF\"")
            .key("whole_story", expect.whole_story, "there are no other lines and requests (false)")
            .key("properties", expect.properties, "properties at the end; \"\": unset", kProperties)
            .key("end", expect.end,
                 "how the run ends: \"waits\" (for the modem), \"parked\", \"limit\", \"upload\", "
                 "\"stop\" or \"exit N\" (waits)",
                 kEnd)
            .key("lasts", expect.lasts, "virtual time from start to end", kSpan)
            .key("absent", expect.absent, "paths that must not exist", kFilePattern)
            .key("files", expect.files, "files at the end");
}

static void keys(Reader& reader, Scenario& s) {
    std::string start = "2020-10-01 12:30:00";
    PhoneKeys phone{s};
    reader.key("name", s.name, "name of the case")
            .key("about", s.about, "what the case shows, in one sentence")
            .key("modem", s.modem, "\"tq720\" (integrated) or \"vk880\" (external)", kModem)
            .key("program", s.program, "run another program in the daemon's place: \"rvd-check\"",
                 kProgram)
            .key("args", s.args, "the daemon's arguments (-d -t and the modem)")
            .key("cmdline", s.cmdline, "the kernel command line (debug level mid)")
            .key("properties", s.properties, "properties at the start", kProperties)
            .key("start", start, "date and time at the start, UTC", kDate)
            .key("limit", s.limit, "virtual time after which the run ends (10 min)", kSpan)
            .key("seed", s.seed, "seed of all content (1)", kSigned)
            .key("phone", phone, "the phone's file system")
            .key("firmware", s.firmware, "the firmware partition and the NV file")
            .key("driver", s.driver, "the modem's driver")
            .key("dump", s.dump, "the modem's crash dump")
            .key("loader", s.loader, "deviations of the boot loader")
            .key("fault", s.faults, "system calls that fail")
            .key("timeline", s.timeline, "events, one after the other")
            .key("expect", s.expect, "what is checked at the end");
    s.start = read_date(start);
}

namespace {

void add_defaults(Scenario& s) {
    if (s.args.empty()) s.args = {"-d", "-t", s.modem};
    s.properties.emplace("vendor.rvd.rfs_check_done", "1");
    if (s.firmware.entries.empty() && s.firmware.image.empty())
        read_table(s.external() ? "TOC BOOT:100000 MAIN:1M NV:64K OFFSET:0"
                                : "TOC BOOT:100000 MAIN:1M VSS:200000 NV:64K",
                   s.firmware.entries);
    if (s.dump.steps.empty()) s.dump.steps = {256 << 10, 100'000, 5000};
    int64_t size = 16'000;
    for (const char* name : kRegionNames)
        s.driver.regions.emplace(name, Region{size += 10'000, {}, 4096});
    const auto make_absolute = [](std::string& path) {
        if (path[0] != '/') path = fmt::format("{}/{}", kLogDirectory, path);
    };
    for (FileExpectation& file : s.expect.files)
        make_absolute(file.path);
    for (std::string& path : s.expect.absent)
        make_absolute(path);
}

// Rejects an end that the run cannot reach, and a case without expectations.
void check_end(const Value& table, const Scenario& s) {
    if (table.entries().count("expect") == 0)
        table.reject("the case expects nothing; say so with expect.end = \"waits\"");
    if (s.expect.end == "stop" && std::none_of(s.timeline.begin(), s.timeline.end(),
                                               [](const Event& event) { return event.stop; }))
        table.reject("the run cannot end with \"stop\": no event stops it");
    if (s.expect.end == "upload" && s.driver.panic == "returns")
        table.reject("the run cannot end with \"upload\": the panic request returns");
}

Scenario read_case(const Value& table, const std::string& file) {
    Scenario s;
    s.name = file;
    Reader reader(table);
    keys(reader, s);
    reader.finish();
    check_end(table, s);
    add_defaults(s);
    return s;
}

}  // namespace

std::vector<Scenario> parse_scenarios(const std::string& text, const std::string& name) {
    toml::table base = parse_document(text, name);
    toml::node* const found = base.get("case");
    if (found == nullptr) throw Error(name + ":1: no [[case]] in this file");
    if (!found->is_array()) Value{found}.reject("each case begins with [[case]]");
    const toml::array cases = std::move(*found->as_array());
    base.erase("case");
    std::vector<Scenario> scenarios;
    for (const toml::node& item : cases) {
        const Value table = {&item, &base};
        if (!item.is_table()) table.reject("each case begins with [[case]]");
        scenarios.push_back(read_case(table, name));
    }
    return scenarios;
}

std::vector<Scenario> read_scenarios(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) throw_errno(path);
    return parse_scenarios(read_file(path), path);
}

Schema scenario_schema() {
    Schema schema = {{"$schema", "http://json-schema.org/draft-07/schema#"},
                     {"title", "a scenario of rvd-lab"},
                     {"type", "object"},
                     {"additionalProperties", false}};
    Reader reader(schema);
    Scenario s;
    keys(reader, s);
    schema["properties"]["case"] = {{"description", "runs: each merged over the rest of the file"},
                                    {"type", "array"},
                                    {"items", {{"$ref", "#"}}}};
    return schema;
}

}  // namespace rvd::lab
