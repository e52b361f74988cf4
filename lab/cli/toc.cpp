// The command "toc": a firmware image's table of contents, and the daemon's load plan for each
// modem.

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>

#include <nlohmann/json.hpp>

#include "check/plan.h"
#include "check/report.h"
#include "lab/cli/command_line.h"
#include "main/Container.h"

namespace rvd::lab {

namespace {

using Json = nlohmann::ordered_json;

Json texts(const std::vector<std::string>& list) {
    Json texts = Json::array();
    for (const std::string& text : list)
        texts.push_back(check::printable(text));
    return texts;
}

Json plan_for(const char* modem, int image, check::Capture& lines) {
    char program[] = "rvd", option[] = "-t", type[] = "tq720";
    snprintf(type, sizeof(type), "%s", modem);
    char* words[] = {program, option, type, nullptr};
    Container::parseArgs(3, words);
    const check::Plan plan = check::make_plan(image, CP_BOOT_MODE_NORMAL, lines);
    Json stages = Json::array();
    for (const check::Row& row : plan.rows)
        stages.push_back({{"stage", row.stage},
                          {"name", check::printable(row.name)},
                          {"from", row.fd < 0         ? ""
                                   : row.in_partition ? "image"
                                                      : "NV"},
                          {"b_off", row.b_off},
                          {"m_off", row.m_off},
                          {"size", row.size}});
    return {{"modem", modem},
            {"stages", stages},
            {"overlaps", texts(plan.overlaps)},
            {"refusals", texts(plan.refusals)}};
}

Json describe(int image, check::Capture& lines) {
    const auto table = check::read_table(image);
    const check::Layout layout = check::lay_out(image, table);
    Json toc_json = {{"size", check::size_of(image)},
                     {"toc_count", table.empty() ? 0 : table[0].toc_count}};
    for (const check::Entry& entry : table)
        toc_json["entries"].push_back({{"index", entry.index},
                                       {"name", check::printable(TocName(entry).text)},
                                       {"from", entry.in_partition ? "image" : "NV"},
                                       {"b_off", entry.b_off},
                                       {"m_off", entry.m_off},
                                       {"size", entry.size},
                                       {"crc", entry.crc}});
    toc_json["gaps"] = texts(layout.gaps);
    toc_json["overlaps"] = texts(layout.overlaps);
    toc_json["beyond"] = texts(layout.beyond);
    for (const char* modem : {"tq720", "vk880"})
        toc_json["plans"].push_back(plan_for(modem, image, lines));
    return toc_json;
}

void print_list(const char* head, const Json& list) {
    for (const Json& item : list)
        fmt::print("{}{}\n", head, item.get<std::string>());
}

void print_rows(const Json& rows, const char* number) {
    for (const Json& row : rows)
        fmt::print("  {:>5}  {:<12}  {:<5}  0x{:08x}  0x{:08x}  {:>10}  {}\n",
                   row[number].get<unsigned>(), row["name"].get<std::string>(),
                   row["from"].get<std::string>(), row["b_off"].get<uint32_t>(),
                   row["m_off"].get<uint32_t>(), row["size"].get<uint32_t>(),
                   row.contains("crc") ? fmt::format("0x{:08x}", row["crc"].get<uint32_t>()) : "");
}

void print(const Json& toc_json) {
    constexpr char kHead[] = "  {:>5}  {:<12}  {:<5}  {:<10}  {:<10}  {:>10}  {}\n";
    fmt::print("{} bytes, the table counts {} entries\n", toc_json["size"].get<uint64_t>(),
               toc_json["toc_count"].get<uint32_t>());
    if (toc_json.contains("entries")) {
        fmt::print(kHead, "entry", "name", "from", "b_off", "m_off", "bytes", "checksum");
        print_rows(toc_json["entries"], "index");
    }
    print_list("  gap: ", toc_json["gaps"]);
    print_list("  overlap: ", toc_json["overlaps"]);
    print_list("  ", toc_json["beyond"]);
    for (const Json& plan : toc_json["plans"]) {
        const bool refused = !plan["refusals"].empty();
        fmt::print("\n{} {}\n", plan["modem"].get<std::string>(),
                   refused ? "does not boot from it" : "boots from it");
        print_list("  ", plan["refusals"]);
        print_list("  overlap: ", plan["overlaps"]);
        if (plan["stages"].empty()) continue;
        fmt::print(kHead, "stage", "name", "from", "b_off", "m_off", "bytes", "");
        print_rows(plan["stages"], "stage");
    }
}

}  // namespace

// The exit status is 0 if any modem boots from the image.
int toc(CommandLine& line) {
    const ScopedFd image(open(line.firmware.c_str(), O_RDONLY | O_CLOEXEC));
    if (!image.valid()) throw_errno(line.firmware);
    setenv("RVD_ANDROID_LOG", "/dev/null", 1);
    check::Capture lines;
    const Json toc_json = describe(image.get(), lines);
    if (line.reporting.json) {
        fmt::print("{}\n", toc_json.dump(1));
    } else {
        print(toc_json);
    }
    for (const Json& plan : toc_json["plans"]) {
        if (plan["refusals"].empty()) return kPassed;
    }
    return kFailed;
}

}  // namespace rvd::lab
