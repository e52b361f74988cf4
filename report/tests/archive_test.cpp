// Archives, good and hostile.
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include "report/incident/incident.h"
#include "report/tests/support.h"

namespace rvd::report {
namespace {

struct Member {
    std::string path, content, link;
};

void pack(const std::filesystem::path& path, const std::vector<Member>& members) {
    archive* writer = archive_write_new();
    if (path.extension() == ".zip") {
        archive_write_set_format_zip(writer);
    } else {
        archive_write_set_format_pax_restricted(writer);
        archive_write_add_filter_gzip(writer);
    }
    ASSERT_EQ(archive_write_open_filename(writer, path.c_str()), ARCHIVE_OK);
    for (const Member& member : members) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, member.path.c_str());
        archive_entry_set_filetype(entry, member.link.empty() ? AE_IFREG : AE_IFLNK);
        archive_entry_set_perm(entry, 0644);
        if (!member.link.empty()) archive_entry_set_symlink(entry, member.link.c_str());
        archive_entry_set_size(entry, static_cast<la_int64_t>(member.content.size()));
        ASSERT_EQ(archive_write_header(writer, entry), ARCHIVE_OK);
        archive_write_data(writer, member.content.data(), member.content.size());
        archive_entry_free(entry);
    }
    archive_write_free(writer);
}

constexpr char kInfo[] = "cpcrash_umts_info_tq720_20201001-1231.log";
constexpr char kLog[] = "cpcrash_umts_log_20201001-1231.log";

TEST(Archives, AreReadAsTheyAre) {
    const TemporaryDirectory directory;
    for (const char* name : {"pulled.zip", "pulled.tar.gz"}) {
        const auto path = directory.path() / name;
        pack(path, {{std::string("./rvd/") + kInfo, ": CP Crash by USER - x", ""},
                    {"rvd/readme", "x", ""},
                    {"elsewhere/readme", "x", ""}});
        Evidence evidence(path.string());
        ASSERT_EQ(evidence.files().size(), 2u) << name;
        EXPECT_EQ(evidence.files()[0].path, std::string("rvd/") + kInfo);
        const Report report = examine(evidence);
        EXPECT_EQ(report.incidents.at(0).origin, "USER") << name;
        EXPECT_EQ(report.incidents.at(0).files.at(0).file.size, 22u) << name;
    }
}

TEST(Archives, WhatLeadsOutsideIsRefusedAndNothingIsWritten) {
    const TemporaryDirectory directory;
    const auto path = directory.path() / "inner" / "hostile.tar.gz";
    std::filesystem::create_directory(path.parent_path());
    pack(path, {{std::string("../") + kInfo, "x", ""},
                {std::string("/") + kInfo, "x", ""},
                {kLog, "", "/etc/passwd"}});
    Evidence evidence(path.string());
    for (const File& file : evidence.files())
        EXPECT_NE(file.trouble, "") << file.path;
    EXPECT_EQ(evidence.files().size(), 3u);
    EXPECT_TRUE(examine(evidence).anything_lost());
    size_t entries = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.path()))
        entries += entry.is_regular_file();
    EXPECT_EQ(entries, 1u);
}

TEST(Archives, WhatIsNoneOrCutIsAnErrorOfItsOwn) {
    const TemporaryDirectory directory;
    const auto path = directory.path() / "cut.tar.gz";
    std::string noise;
    for (uint32_t i = 0, x = 1; i < 100'000; i++, x = x * 1664525 + 1013904223)
        noise += static_cast<char>(x >> 24);
    pack(path, {{kInfo, noise, ""}});
    const std::string whole = read_whole(path);
    for (const std::string& content :
         {std::string(), std::string("no archive"), whole.substr(0, whole.size() / 2)}) {
        directory.write("cut.tar.gz", content);
        EXPECT_THROW(Evidence(path.string()), Unreadable) << content.size();
    }
    EXPECT_THROW(Evidence(directory.path().string()), Unreadable);
    EXPECT_THROW(Evidence((directory.path() / "none").string()), Unreadable);
}

}  // namespace
}  // namespace rvd::report
