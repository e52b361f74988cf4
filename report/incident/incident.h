// What happened, as far as the evidence tells: the files of one crash or reset put together, and a
// verdict for each.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "report/evidence/evidence.h"
#include "report/parse/crash_log.h"
#include "report/parse/records.h"

namespace rvd::report {

enum class State {
    kComplete,    // as long as the daemon's lines say, or ended as the daemon ends it
    kUnverified,  // nothing speaks against it, and nothing says how long it must be
    kShort,
    kStaleTail,  // what is behind its end is left of an older file of that name
    kEmpty,
    kMissing,  // the daemon's lines speak of it
    kUnreadable,
    kUnknownName,
};

struct Verdict {
    State state = State::kUnverified;
    bool lost = false;  // evidence is gone
    std::string why;    // of the file, in one phrase; empty where the state says it all
    std::optional<uint64_t> expected;
};

struct JudgedFile {
    File file;
    Verdict verdict;
};

struct Incident {
    bool crash = false;  // or a reset that the radio layer did not follow up
    std::string modem, type;
    DeviceTime time = 0;
    bool to_the_minute = false;
    KernelTime kernel_time = kNoTime;
    KernelTime since_boot = kNoTime;  // of the modem
    std::string boot_step;            // that failed, where the modem crashed in its boot
    bool again = false;               // another try at the dump of the crash before

    std::string sentence;          // ": CP Crash by CP - UMTS: ..."
    std::string origin, reason;    // "CP", "UMTS: ..."
    std::optional<int64_t> owner;  // the driver's number for who

    std::string driver_version, daemon_version;
    std::string stopped;  // where and why the dump stopped; empty: it did not, or nothing tells
    std::vector<JudgedFile> files;
    std::vector<Record> records;

    std::vector<const JudgedFile*> lost() const;
    bool has(Kind kind) const;
};

struct RecordFile {
    std::string path;
    Records content;
};

struct Report {
    std::string path;
    std::vector<Incident> incidents;  // by time
    std::vector<JudgedFile> others;   // of no incident
    std::vector<RecordFile> records;

    bool anything_lost() const;
};

// How far the evidence is read: a list needs less of it.
enum class Depth { kList, kWhole };

Report examine(Evidence& evidence, Depth depth = Depth::kWhole);

// --- The steps of it ---------------------------------------------------------------------------

// Files without an incident become `others`; nothing is judged yet.
Report group(std::vector<File> files, const std::string& path);

// Verdicts, cause and versions of one incident from its own files.
void judge(Incident& incident, const Evidence& evidence, Depth depth);
// Of a file of no incident. `records_size` is the length that lines give the log of silent resets.
Verdict judge_other(File& file, const Evidence& evidence, std::optional<uint64_t> records_size,
                    Records& records);

// ": CP Crash by CP - text" taken apart; false where it is no such sentence.
bool take_apart(const std::string& sentence, std::string& origin, std::string& reason);

const char* state_name(State state);

}  // namespace rvd::report
