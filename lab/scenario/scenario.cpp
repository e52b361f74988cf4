#include "lab/scenario/scenario.h"

#include <unistd.h>

#include <algorithm>

#include "lab/scenario/reader.h"

namespace rvd::lab {

namespace {

constexpr int64_t kLargestFiller = 16 << 20;

void read_turn(Reader& reader, Turn& turn) {
    reader.number("nth", turn.nth, "from which time on it applies (1)")
            .number("count", turn.count, "to how many of them; 0: to all that follow (1)");
}

void read_phone(Reader& reader, Scenario& s) {
    std::map<std::string, int64_t> fillers;
    reader.map("files", s.files, "files made beforehand: path = content")
            .map("fillers", fillers, "files made beforehand of nothing but 'x': path = bytes")
            .texts("missing", s.missing, "paths (nodes, directories, files) that don't exist")
            .texts("read_only", s.read_only, "directories on a read-only file system")
            .map("free", s.free_mb, "free space by path prefix, in MB (20000)")
            .number("full_after", s.full_after, "the data disk takes this many bytes and no more")
            .number("ring", s.ring, "bytes in the kernel's log ring (what was logged)")
            .flag("log_group", s.log_group, "the group \"log\" exists (true)");
    for (const auto& [path, size] : fillers) {
        if (size < 0 || size > kLargestFiller)
            reader.refuse("no filler has so many bytes: " + path);
        s.files[path].assign(static_cast<size_t>(size), 'x');
    }
}

void read_firmware(Reader& reader, Firmware& firmware) {
    reader.number("toc_count", firmware.toc_count, "entries announced (as many as there are)")
            .number("truncate", firmware.truncate, "the partition ends after so many bytes")
            .number("nv_size", firmware.nv_size,
                    "bytes in the NV file; negative: no file (the NV entry's size)")
            .list<FirmwareEntry>("entry", firmware.entries, "the table of contents, in order",
                                 [](Reader& r, FirmwareEntry& entry) {
                                     r.text("name", entry.name, "name, at most 12 characters")
                                             .number("size", entry.size, "bytes (512)")
                                             .number("b_off", entry.b_off,
                                                     "place in its file (one after the other)")
                                             .number("m_off", entry.m_off,
                                                     "place in modem memory (one after the other)")
                                             .number("crc", entry.crc, "checksum (made up)");
                                 });
}

void read_driver(Reader& reader, DriverSetup& driver) {
    reader.number("state", driver.state, "modem state at the start (0)")
            .text("version", driver.version, "version text, at most 20 characters")
            .number("owner", driver.owner, "who crashed the modem (0)")
            .text("reason", driver.reason, "the driver's crash text")
            .text("srinfo", driver.srinfo, "text of the silent-reset record (none)")
            .number("srinfo_length", driver.srinfo_length,
                    "length word (header and text; blanks follow)")
            .text("panic", driver.panic, "a panic request: \"upload\" ends the device, \"returns\"")
            .list<Answer>("answer", driver.answers, "requests that are answered otherwise",
                          [](Reader& r, Answer& answer) {
                              r.text("request", answer.request, "its name, as \"POWER_ON\"")
                                      .number("result", answer.result, "result; negative: errno");
                              read_turn(r, answer.turn);
                          })
            .named("regions", "modem memory regions", [&](const std::string& name, Reader& r) {
                Region& region = driver.regions[name];
                r.number("size", region.size, "bytes announced")
                        .number("delivers", region.delivers, "bytes delivered (as announced)")
                        .number("packet", region.packet, "bytes a read (4096)");
            });
}

void read_dump(Reader& reader, DumpSetup& dump) {
    reader.numbers("steps", dump.steps, "bytes of each step")
            .text("reason", dump.reason, "the modem's crash text")
            .number("payload", dump.payload, "bytes of a frame (2048)")
            .number("announce_size", dump.announce_size, "total announced (the true one)")
            .number("announce_steps", dump.announce_steps, "steps announced (the true number)")
            .number("announce_reason", dump.announce_reason,
                    "text length announced (the true one)");
}

void read_quirk(Reader& reader, Quirk& quirk) {
    reader.text("at", quirk.at, "word (\"0xA00D\"), \"info\", \"reason\", or step.frame (\"1.3\")")
            .number("say", quirk.say, "another word, or another command word in the frame")
            .number("num_frames", quirk.num_frames, "another frame count")
            .number("curr_frame", quirk.curr_frame, "another frame number")
            .number("len", quirk.len, "another payload length word")
            .number("cut", quirk.cut, "only so many bytes of the packet")
            .number("extra", quirk.extra, "so many bytes more than the packet has")
            .time("late", quirk.late, "sent so much later")
            .flag("twice", quirk.twice, "sent twice")
            .flag("silent", quirk.silent, "never sent, and nothing after it")
            .flag("hang_up", quirk.hang_up, "a hang-up instead");
    read_turn(reader, quirk.turn);
}

void read_fault(Reader& reader, Fault& fault) {
    reader.text("call", fault.call, "system call: open, read, write, fsync, mkdir, mmap, ...")
            .text("path", fault.path, "only on this path; '*' stands for anything (*)")
            .text("error", fault.error, "the errno it gives, as \"EIO\"")
            .number("cut", fault.cut, "a read or write of only so many bytes; 0: end of file")
            .flag("hang_up", fault.hang_up, "the node hangs up under the call");
    read_turn(reader, fault.turn);
    if (!fault.error.empty() && errno_number(fault.error) == 0)
        reader.refuse("no errno is called \"" + fault.error + "\"");
}

void read_event(Reader& reader, Event& event) {
    reader.time("at", event.at, "when: this long after the start")
            .flag("waits", event.waits, "when: the daemon waits for an event")
            .text("line", event.line, "when: the daemon logs this")
            .text("request", event.request, "when: the driver or the link sees this")
            .flag("upload", event.upload, "when: the device went to upload mode")
            .time("after", event.after, "and then so much later")
            .number("state", event.state, "the modem changes to this state")
            .map("set", event.set, "these properties change")
            .flag("restart", event.restart, "the daemon is killed and started again")
            .flag("reboot", event.reboot, "the device reboots: restart, properties fresh")
            .flag("stop", event.stop, "the run ends here");
}

void read_expectations(Reader& reader, Expectations& expect) {
    reader.texts("log", expect.log, "lines the daemon logs, in this order, others between")
            .texts("no_log", expect.no_log, "lines it must not log")
            .map("times", expect.times, "how often it logs a line")
            .texts("requests", expect.requests, "requests and link words, in this order")
            .texts("no_requests", expect.no_requests, "requests that must not come")
            .texts("story", expect.story,
                   "both together, each behind its time: \"4.5 s POWER_OFF\"")
            .flag("whole_story", expect.whole_story, "nothing else happens in the story (false)")
            .map("properties", expect.properties, "properties at the end; \"\": unset")
            .text("end", expect.end,
                  "\"waits\", \"parked\", \"limit\", \"upload\", \"stop\" or \"exit N\"")
            .time("lasts", expect.lasts, "virtual time from start to end")
            .texts("absent", expect.absent, "paths that must not exist")
            .list<FileExpectation>(
                    "files", expect.files, "files at the end",
                    [](Reader& r, FileExpectation& file) {
                        r.text("path", file.path, "path; '*' stands for anything")
                                .number("number", file.number, "how many such files (1)")
                                .number("size", file.size, "bytes")
                                .text("mode", file.mode, "access mode, as \"0664\"")
                                .text("text", file.text, "content; '*' stands for anything")
                                .text("equals", file.equals,
                                      "content: \"dump\", \"erased\", or a region's name; "
                                      "with a size, so much of it");
                    });
}

void read_all(Reader& reader, Scenario& s) {
    reader.text("name", s.name, "name of the case")
            .text("about", s.about, "what it shows, one sentence")
            .text("modem", s.modem, "\"tq720\" (integrated) or \"vk880\" (external)")
            .texts("args", s.args, "the daemon's arguments (-d -t and the modem)")
            .text("cmdline", s.cmdline, "the kernel command line (debug level mid)")
            .map("properties", s.properties, "properties at the start")
            .text("start", s.start, "date and time at the start, UTC")
            .time("limit", s.limit, "virtual time after which the run ends (10 min)")
            .number("seed", s.seed, "seed of all content (1)")
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
    const bool ext = s.external();
    if (s.args.empty()) s.args = {"-d", "-t", s.modem};
    s.properties.emplace("vendor.rvd.rfs_check_done", "1");
    if (s.firmware.entries.empty()) {
        s.firmware.entries = {{"TOC", {}, {}, {}, 512},
                              {"BOOT", {}, {}, {}, 100'000},
                              {"MAIN", {}, {}, {}, 1 << 20}};
        if (!ext) s.firmware.entries.push_back({"VSS", {}, {}, {}, 200'000});
        s.firmware.entries.push_back({"NV", 0, {}, {}, 65'536});
        if (ext) s.firmware.entries.push_back({"OFFSET", {}, {}, {}, 0});
    }
    if (s.dump.steps.empty()) s.dump.steps = {256 << 10, 100'000, 5000};
    const char* const names[] = {"shmem", "vss", "hxlg", "cp_btl", "databuf", "l2b"};
    int64_t size = 16'000;
    for (const char* name : names)
        s.driver.regions.emplace(name, Region{size += 10'000, {}, 4096});
}

Scenario read_case(const toml::table& base, const toml::table* over, const std::string& file) {
    std::vector<const toml::table*> layers = {&base};
    if (over != nullptr) layers.push_back(over);
    Reader reader(layers, "");
    Scenario s;
    s.name = file;
    read_all(reader, s);
    reader.ignore("case").finish();
    if (s.modem != "tq720" && s.modem != "vk880") reader.refuse("unknown modem " + s.modem);
    add_defaults(s);
    return s;
}

std::vector<Scenario> read_cases(const toml::table& base, const std::string& file) {
    std::vector<Scenario> cases;
    if (const toml::array* list = base["case"].as_array()) {
        for (const toml::node& node : *list)
            cases.push_back(read_case(base, node.as_table(), file));
    } else {
        cases.push_back(read_case(base, nullptr, file));
    }
    return cases;
}

[[noreturn]] void refuse(const std::string& name, const toml::parse_error& error) {
    throw Unable(name + ":" + std::to_string(error.source().begin.line) + ": " +
                 std::string(error.description()));
}

// The TOML library stumbles over some letters where it looks for a blank; \u spells them in a text.
void refuse_beyond_ascii(const std::string& name, const std::string& text) {
    const auto beyond =
            std::find_if(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
    if (beyond == text.end()) return;
    const auto line = 1 + std::count(text.begin(), beyond, '\n');
    throw Unable(name + ":" + std::to_string(line) + ": a character that is not ASCII");
}

}  // namespace

std::vector<Scenario> parse_scenarios(const std::string& text, const std::string& name) try {
    refuse_beyond_ascii(name, text);
    return read_cases(toml::parse(text, name), name);
} catch (const toml::parse_error& error) {
    refuse(name, error);
}

std::vector<Scenario> read_scenarios(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) fail_errno(path);
    return parse_scenarios(read_file(path), path);
}

std::string scenario_manual() {
    std::string manual;
    Reader reader({}, "", &manual);
    Scenario s;
    read_all(reader, s);
    return manual;
}

}  // namespace rvd::lab
