#include "lab/scenario/scenario.h"

#include <fmt/format.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "lab/gate/table.h"
#include "lab/modem/driver.h"
#include "lab/scenario/reader.h"
#include "lab/scenario/words.h"

namespace rvd::lab {

namespace {

constexpr int64_t kLargestFiller = 16 << 20;
constexpr Bounds kAny{INT64_MIN, INT64_MAX};

void read_turn(Reader& reader, Turn& turn) {
    reader.key("nth", turn.nth, "from which time on it applies (1)", {1})
            .key("count", turn.count, "to how many of them; 0: to all that follow (1)")
            .key("after", turn.after, "counted from this line of the daemon's log on (the start)");
}

// Files and directories that a run may make or remove: the phone's own, never the machine's.
void read_paths(Reader& reader, const char* key, std::vector<std::string>& out, const char* help) {
    reader.key(key, out, help);
    for (const std::string& path : out)
        reader.must(is_phone_path(path), not_a_phone_path(path));
}

void read_phone(Reader& reader, Scenario& s) {
    std::map<std::string, int64_t> fillers;
    reader.key("files", s.files, "files made beforehand: path = content");
    for (const auto& [path, content] : s.files)
        reader.must(is_phone_path(path), not_a_phone_path(path));
    reader.key("fillers", fillers, "files made beforehand of nothing but 'x': path = bytes",
               {0, kLargestFiller});
    for (const auto& [path, size] : fillers) {
        reader.must(is_phone_path(path), not_a_phone_path(path));
        s.files[path].assign(static_cast<size_t>(size), 'x');
    }
    read_paths(reader, "missing", s.missing, "paths (nodes, directories, files) that don't exist");
    read_paths(reader, "read_only", s.read_only, "directories on a read-only file system");
    reader.key("free", s.free_mb, "free space by path prefix, in MB (20000)", {0, INT32_MAX})
            .key("full_after", s.full_after, "the data disk takes this many bytes and no more")
            .key("ring", s.ring, "bytes in the kernel's log ring (what was logged)",
                 {0, kLargestFiller})
            .key("log_group", s.log_group, "the group \"log\" exists (true)");
}

void read_firmware(Reader& reader, Firmware& firmware) {
    reader.key("table", firmware.table,
               "the table of contents, \"TOC BOOT:96K MAIN:5000 NV\": each entry's name, then "
               "where wanted :size (512), @place in its file, >place in modem memory (one after "
               "the other), #checksum");
    if (reader.has("table")) {
        std::string why;
        firmware.entries = read_table(firmware.table, why);
        reader.must(why.empty(), why);
    }
    reader.key("toc_count", firmware.toc_count, "entries announced (as many as there are)", kWord)
            .key("truncate", firmware.truncate, "the partition ends after so many bytes", kWord)
            .key("nv_size", firmware.nv_size, "bytes in the NV file; -1: no file (its entry's)",
                 {-1, kLargestFiller});
}

void read_answer(Reader& reader, Answer& answer) {
    const std::vector<std::string> known = request_names();
    reader.key("request", answer.request, "its name, as \"POWER_ON\"")
            .must(is_one_of(answer.request, known), unknown_word("request", answer.request, known))
            .key("result", answer.result, "result; negative: errno", kAny);
    read_turn(reader, answer.turn);
    if (reader.describes()) return;
    for (const char* key : {"request", "result"}) {
        if (!reader.has(key)) reader.refuse(fmt::format("an answer needs \"{}\"", key));
    }
}

void read_driver(Reader& reader, DriverSetup& driver) {
    const std::vector<std::string> regions(std::begin(kRegionNames), std::end(kRegionNames));
    reader.key("state", driver.state, "modem state at the start (0)", {0, INT32_MAX})
            .key("version", driver.version, "version text, at most 20 characters")
            .key("owner", driver.owner, "who crashed the modem (0)", {INT32_MIN, INT32_MAX})
            .key("reason", driver.reason, "the driver's crash text")
            .key("srinfo", driver.srinfo, "text of the silent-reset record (none)")
            .key("srinfo_length", driver.srinfo_length,
                 "length word (header and text; blanks follow)", kWord)
            .key("panic", driver.panic, "a panic request: \"upload\" ends the device, \"returns\"")
            .must(is_one_of(driver.panic, {"upload", "returns"}),
                  unknown_word("panic", driver.panic, {"upload", "returns"}))
            .list<Answer>("answer", driver.answers, "requests that are answered otherwise",
                          read_answer)
            .named("regions", "modem memory regions", [&](const std::string& name, Reader& r) {
                Region& region = driver.regions[name];
                if (!r.describes() && !is_one_of(name, regions))
                    r.refuse(unknown_word("region", name, regions));
                r.key("size", region.size, "bytes announced", kWord)
                        .key("delivers", region.delivers, "bytes delivered (as announced)", kWord)
                        .key("packet", region.packet, "bytes a read (4096)", {1, 8192});
            });
}

void read_dump(Reader& reader, DumpSetup& dump) {
    reader.key("steps", dump.steps, "bytes of each step", kWord)
            .key("reason", dump.reason, "the modem's crash text")
            .key("payload", dump.payload, "bytes of a frame (2048)", {1, 4096})
            .key("announce_size", dump.announce_size, "total announced (the true one)", kWord)
            .key("announce_steps", dump.announce_steps, "steps announced (the true number)", kWord)
            .key("announce_reason", dump.announce_reason, "text length announced (the true one)",
                 kWord);
}

void read_quirk(Reader& reader, Quirk& quirk) {
    reader.key("at", quirk.at, "word (\"0xA00D\"), \"info\", \"reason\", or step.frame (\"1.3\")")
            .must(is_loader_place(quirk.at),
                  fmt::format("\"{}\" is no place: expected a word as \"0xA00D\", \"info\", "
                              "\"reason\" or step.frame as \"1.3\"",
                              quirk.at))
            .key("say", quirk.say, "another word, or another command word in the frame", kWord)
            .key("num_frames", quirk.num_frames, "another frame count", kWord)
            .key("curr_frame", quirk.curr_frame, "another frame number", kWord)
            .key("len", quirk.len, "another payload length word", kWord)
            .key("cut", quirk.cut, "only so many bytes of the packet", {0, 8192})
            .key("extra", quirk.extra, "so many bytes more than the packet has", {0, 8192})
            .time("late", quirk.late, "sent so much later")
            .key("twice", quirk.twice, "sent twice")
            .key("silent", quirk.silent, "never sent, and nothing after it")
            .key("hang_up", quirk.hang_up, "a hang-up instead");
    read_turn(reader, quirk.turn);
    if (!reader.describes() && quirk.at.empty())
        reader.refuse("the loader's deviation needs \"at\"");
}

void read_fault(Reader& reader, Fault& fault) {
    const std::vector<std::string> known = fault_calls();
    reader.key("call", fault.call, "system call: open, read, write, fsync, mkdir, mmap, ...")
            .must(is_one_of(fault.call, known), unknown_word("call", fault.call, known))
            .key("path", fault.path, "only on paths that match (*)")
            .key("error", fault.error, "the errno it gives, as \"EIO\"")
            .must(errno_number(fault.error) != 0, "unknown errno \"" + fault.error + "\"")
            .key("cut", fault.cut, "a read or write of only so many bytes; 0: end of file")
            .key("hang_up", fault.hang_up, "the node hangs up under the call");
    read_turn(reader, fault.turn);
    if (reader.describes()) return;
    if (fault.call.empty()) reader.refuse("a fault needs \"call\"");
    if (!fault.error.empty() + fault.cut.has_value() + fault.hang_up != 1)
        reader.refuse("a fault needs one of \"error\", \"cut\" and \"hang_up\"");
}

void read_event(Reader& reader, Event& event) {
    reader.time("at", event.at, "when: this long after the start")
            .key("waits", event.waits, "when: the daemon waits for an event")
            .key("line", event.line, "when: the daemon logs this")
            .key("request", event.request, "when: the driver or the link sees this")
            .must(can_be_request(event.request),
                  unknown_word("request", event.request, request_words()))
            .key("upload", event.upload, "when: the device went to upload mode")
            .time("after", event.after, "and then so much later")
            .key("state", event.state, "the modem changes to this state", {0, INT32_MAX})
            .key("set", event.set, "these properties change");
    for (const auto& [name, value] : event.set)
        reader.must(is_property_name(name), "\"" + name + "\" is no property's name");
    reader.key("restart", event.restart, "the daemon is killed and started again")
            .key("reboot", event.reboot, "the device reboots: restart, properties fresh")
            .key("stop", event.stop, "the run ends here");
    if (reader.describes()) return;
    const int when = event.at.has_value() + event.waits + !event.line.empty() +
                     !event.request.empty() + event.upload;
    if (when != 1)
        reader.refuse("an event needs one of \"at\", \"waits\", \"line\", \"request\", \"upload\"");
    if (!event.state && event.set.empty() && !event.restart && !event.reboot && !event.stop)
        reader.refuse("nothing happens: \"state\", \"set\", \"restart\", \"reboot\" or \"stop\"");
}

void read_file_expectation(Reader& reader, FileExpectation& file) {
    std::vector<std::string> contents(std::begin(kRegionNames), std::end(kRegionNames));
    contents.insert(contents.end(), {"dump", "erased"});
    reader.key("path", file.path, "path; its last part may be a pattern")
            .must(is_file_pattern(file.path), not_a_file_pattern(file.path))
            .key("number", file.number, "how many such files (1)")
            .key("size", file.size, "bytes")
            .key("mode", file.mode, "access mode, as \"0664\"")
            .must(is_mode(file.mode), "expected a mode of four octal digits, as \"0664\"")
            .key("text", file.text, "content, a pattern")
            .key("equals", file.equals,
                 "content: \"dump\", \"erased\", or a region's name; with a size, so much of it")
            .must(is_one_of(file.equals, contents), unknown_word("content", file.equals, contents));
    if (!reader.describes() && file.path.empty()) reader.refuse("a file needs \"path\"");
}

void read_requests(Reader& reader, const char* key, std::vector<std::string>& out,
                   const char* help) {
    reader.key(key, out, help);
    for (const std::string& pattern : out)
        reader.must(can_be_request(pattern), unknown_word("request", pattern, request_words()));
}

void read_expectations(Reader& reader, Expectations& expect) {
    reader.key("log", expect.log, "lines the daemon logs, in this order, others between")
            .key("no_log", expect.no_log, "lines it must not log")
            .key("times", expect.times, "how often it logs a line");
    read_requests(reader, "requests", expect.requests,
                  "requests and link words, in this order, others between");
    read_requests(reader, "no_requests", expect.no_requests, "requests that must not come");
    reader.key("story", expect.story, "both together, each behind its time: \"4.5 s POWER_OFF\"")
            .key("whole_story", expect.whole_story, "nothing else happens in the story (false)")
            .key("properties", expect.properties, "properties at the end; \"\": unset");
    for (const auto& [name, value] : expect.properties)
        reader.must(is_property_name(name), "\"" + name + "\" is no property's name");
    reader.key("end", expect.end,
               "how the run ends: \"waits\" (for the modem), \"parked\", \"limit\", \"upload\", "
               "\"stop\" or \"exit N\" (waits)")
            .must(is_end(expect.end),
                  unknown_word("end", expect.end,
                               {"waits", "parked", "limit", "upload", "stop", "exit 0"}))
            .time("lasts", expect.lasts, "virtual time from start to end")
            .key("absent", expect.absent, "paths that must not exist");
    for (const std::string& path : expect.absent)
        reader.must(is_file_pattern(path), not_a_file_pattern(path));
    reader.list<FileExpectation>("files", expect.files, "files at the end", read_file_expectation);
}

void read_start(Reader& reader, Time& start) {
    std::string text = "2020-10-01 12:30:00";
    reader.key("start", text, "date and time at the start, UTC");
    tm parts{};
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    reader.must(end != nullptr && *end == '\0', "expected a time as \"2020-10-01 12:30:00\"");
    start = timegm(&parts) * kSecond;
}

void read_all(Reader& reader, Scenario& s) {
    reader.key("name", s.name, "name of the case")
            .key("about", s.about, "what it shows, one sentence")
            .key("modem", s.modem, "\"tq720\" (integrated) or \"vk880\" (external)")
            .must(is_one_of(s.modem, {"tq720", "vk880"}),
                  unknown_word("modem", s.modem, {"tq720", "vk880"}))
            .key("args", s.args, "the daemon's arguments (-d -t and the modem)")
            .key("cmdline", s.cmdline, "the kernel command line (debug level mid)")
            .key("properties", s.properties, "properties at the start");
    for (const auto& [name, value] : s.properties)
        reader.must(is_property_name(name), "\"" + name + "\" is no property's name");
    read_start(reader, s.start);
    reader.time("limit", s.limit, "virtual time after which the run ends (10 min)")
            .key("seed", s.seed, "seed of all content (1)", kAny)
            .table("phone", "the phone's file system", [&](Reader& r) { read_phone(r, s); })
            .table("firmware", "the firmware partition and the NV file",
                   [&](Reader& r) { read_firmware(r, s.firmware); })
            .table("driver", "the modem's driver", [&](Reader& r) { read_driver(r, s.driver); })
            .table("dump", "the crash dump the modem has", [&](Reader& r) { read_dump(r, s.dump); })
            .list<Quirk>("loader", s.loader, "what the boot loader does wrong", read_quirk)
            .list<Fault>("fault", s.faults, "system calls that fail", read_fault)
            .list<Event>("timeline", s.timeline, "what happens, one after the other", read_event)
            .table("expect", "what must be seen",
                   [&](Reader& r) { read_expectations(r, s.expect); });
}

void add_defaults(Scenario& s) {
    std::string why;
    if (s.args.empty()) s.args = {"-d", "-t", s.modem};
    s.properties.emplace("vendor.rvd.rfs_check_done", "1");
    if (s.firmware.entries.empty())
        s.firmware.entries = read_table(s.external() ? "TOC BOOT:100000 MAIN:1M NV:64K OFFSET:0"
                                                     : "TOC BOOT:100000 MAIN:1M VSS:200000 NV:64K",
                                        why);
    if (s.dump.steps.empty()) s.dump.steps = {256 << 10, 100'000, 5000};
    int64_t size = 16'000;
    for (const char* name : kRegionNames)
        s.driver.regions.emplace(name, Region{size += 10'000, {}, 4096});
}

// What no run can come to.
void check_end(Reader& reader, const Scenario& s) {
    const auto stops = [](const Event& event) { return event.stop; };
    if (s.expect.end == "stop" && std::none_of(s.timeline.begin(), s.timeline.end(), stops))
        reader.refuse("the run cannot end with \"stop\": no event stops it");
    if (s.expect.end == "upload" && s.driver.panic == "returns")
        reader.refuse("the run cannot end with \"upload\": the panic request returns");
}

Scenario read_case(const toml::table& base, const toml::table& over, const std::string& file) {
    Reader reader({&base, &over}, "");
    Scenario s;
    s.name = file;
    read_all(reader, s);
    reader.ignore("case").finish();
    if (!reader.has("expect"))
        reader.refuse("the case expects nothing; say so with expect.end = \"waits\"");
    check_end(reader, s);
    add_defaults(s);
    return s;
}

std::vector<Scenario> read_cases(const toml::table& base, const std::string& file) {
    const toml::node* node = base.get("case");
    if (node == nullptr) throw Unable(file + ":1: no [[case]] in this file");
    const toml::array* list = node->as_array();
    if (list == nullptr || !list->is_homogeneous<toml::table>())
        refuse_at(*node, "each case begins with [[case]]");
    std::vector<Scenario> cases;
    for (const toml::node& item : *list)
        cases.push_back(read_case(base, *item.as_table(), file));
    return cases;
}

// The library calls the end of a line within a text a control character.
[[noreturn]] void refuse(const std::string& name, const std::string& text,
                         const toml::parse_error& error) {
    const auto line = error.source().begin.line;
    std::string why(error.description());
    if (why.find("parsing string") != why.npos) {
        size_t at = 0;
        for (unsigned i = 1; i < line && at < text.size(); i++)
            at = std::min(text.find('\n', at), text.size() - 1) + 1;
        const size_t end = std::min(text.find('\n', at), text.size()) - at;
        if (error.source().begin.column > end || why.find("end-of-file") != why.npos)
            why = "the text that begins here is not terminated";
    }
    throw Unable(fmt::format("{}:{}: {}", name, line, why));
}

// The TOML library stumbles over some letters where it looks for a blank; \u spells them in a text.
void refuse_beyond_ascii(const std::string& name, const std::string& text) {
    const auto beyond =
            std::find_if(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
    if (beyond == text.end()) return;
    throw Unable(fmt::format("{}:{}: a character that is not ASCII; in a text, \\u spells it", name,
                             1 + std::count(text.begin(), beyond, '\n')));
}

}  // namespace

std::vector<Scenario> parse_scenarios(const std::string& text, const std::string& name) try {
    refuse_beyond_ascii(name, text);
    return read_cases(toml::parse(text, name), name);
} catch (const toml::parse_error& error) {
    refuse(name, text, error);
}

std::vector<Scenario> read_scenarios(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) fail_errno(path);
    return parse_scenarios(read_file(path), path);
}

nlohmann::ordered_json scenario_schema() {
    Schema schema = {{"$schema", "http://json-schema.org/draft-07/schema#"},
                     {"title", "a scenario of rvd-lab"}};
    Reader reader({}, "", &schema);
    Scenario s;
    read_all(reader, s);
    reader.finish();
    schema["properties"]["case"] = {{"description", "runs: tables laid over the rest of the file"},
                                    {"type", "array"},
                                    {"items", {{"$ref", "#"}}}};
    return schema;
}

}  // namespace rvd::lab
