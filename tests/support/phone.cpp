#include "tests/support/phone.h"

#include <errno.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <sstream>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "protocol/ProtocolVelo.h"
#include "protocol/link.h"
#include "tests/support/private_root.h"

namespace rvd::test {

namespace fs = std::filesystem;

namespace {

std::string shown(const std::string& bytes) {
    uint32_t first = 0;
    memcpy(&first, bytes.data(), std::min(bytes.size(), sizeof(first)));
    std::ostringstream text;
    text << bytes.size() << " bytes, 0x" << std::hex << first << " ...";
    return text.str();
}

}  // namespace

Modem::Modem(int32_t* slot) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    *slot = ends[0];
    fd_ = ends[1];
    kernel().on_wait = [this] { take_turn(); };
}

Modem::~Modem() {
    verify();
    close(fd_);
    kernel().on_wait = nullptr;
}

Modem& Modem::expects(std::string bytes) {
    script_.push_back({Act::EXPECT, std::move(bytes)});
    return *this;
}

Modem& Modem::says(std::string bytes) {
    script_.push_back({Act::SAY, std::move(bytes)});
    return *this;
}

Modem& Modem::hangs_up() {
    script_.push_back({Act::HANG_UP, {}});
    return *this;
}

bool Modem::receive(std::string* bytes) {
    char packet[8192];
    const ssize_t count = recv(fd_, packet, sizeof(packet), MSG_DONTWAIT);
    if (count <= 0) return false;
    bytes->assign(packet, static_cast<size_t>(count));
    return true;
}

void Modem::take_turn() {
    for (; !script_.empty(); script_.pop_front()) {
        const Step& step = script_.front();
        std::string sent;
        switch (step.act) {
            case Act::EXPECT:
                if (!receive(&sent)) return;
                EXPECT_EQ(shown(sent), shown(step.bytes));
                EXPECT_TRUE(sent == step.bytes) << "sent bytes differ from " << shown(step.bytes);
                break;
            case Act::SAY:
                EXPECT_EQ(send(fd_, step.bytes.data(), step.bytes.size(), 0),
                          static_cast<ssize_t>(step.bytes.size()));
                break;
            case Act::HANG_UP:
                shutdown(fd_, SHUT_RDWR);
                break;
        }
    }
}

void Modem::verify() {
    take_turn();
    for (const Step& step : script_)
        ADD_FAILURE() << "the modem still expects " << shown(step.bytes);
    std::string rest;
    EXPECT_FALSE(receive(&rest)) << "the modem was also sent " << shown(rest);
}

std::string word(uint32_t value) {
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

std::string frame(uint32_t cmd, uint32_t num_frames, uint32_t curr_frame, std::string payload) {
    const uint32_t len = static_cast<uint32_t>(payload.size());
    return frame(cmd, num_frames, curr_frame, len, std::move(payload));
}

std::string frame(uint32_t cmd, uint32_t num_frames, uint32_t curr_frame, uint32_t len,
                  std::string payload) {
    return word(cmd) + word(num_frames) + word(curr_frame) + word(len) + payload;
}

void Phone::SetUp() {
    reset_kernel();
    kmsg_fd = -1;
    debug_level = 1;
    cp_debug = 0;
    *Container::getRvdArgs() = {};
    set_cmdline("");
    write_file(kGroups, "");
    for (const char* parent : {"/data/vendor/log", "/efs", "/sys/power"}) {
        for (const auto& entry : fs::directory_iterator(parent))
            fs::remove_all(entry);
    }
    fs::create_directory(kLogDir);
    Log::update_log_dir();
    static ProtocolVelo protocol;
    Container::setProtocol(&protocol);
    Log::info("SetUp", "the Android log opens with the first line\n");
    descriptors_ = open_descriptors();
    kernel_log_ = memfd_create("kernel log", MFD_CLOEXEC);
    kmsg_fd = kernel_log_;
    use_modem("tq720");
    said();
}

void Phone::TearDown() {
    driver().verify();
    kernel().join_detached();
    Container::getBootDump()->std_boot_close_args();
    Container::getBootDump()->std_dump_close_args();
    close(kernel_log_);
    kmsg_fd = STDOUT_FILENO;
    EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors were left open";
}

void Phone::use_modem(const char* type) {
    char program[] = "rvd";
    char option[] = "-t";
    std::string name = type;
    char* words[] = {program, option, name.data(), nullptr};
    ASSERT_EQ(Container::parseArgs(3, words), PARSE_OK);
}

Lines Phone::said() {
    const std::string all = read_file("/proc/self/fd/" + std::to_string(kernel_log_));
    std::istringstream unread(all.substr(read_));
    read_ = all.size();
    static const std::regex error_head("^<3>lnkm: rvd: \\(ERR! [^)]*\\) ");
    static const std::regex info_head("^<6>lnkm: rvd: ");
    Lines lines;
    for (std::string line; std::getline(unread, line);) {
        line = std::regex_replace(line, error_head, "! ");
        lines.push_back(std::regex_replace(line, info_head, ""));
    }
    return lines;
}

void set_property(const std::string& name, const std::string& value) {
    write_file(property_store() + "/" + name, value);
}

std::string property(const std::string& name) {
    return read_file(property_store() + "/" + name);
}

void set_cmdline(const std::string& text) {
    write_file(kCmdline, text);
}

size_t open_descriptors() {
    return list("/proc/self/fd").size();
}

std::string pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i % 251 + i / 2048);
    return bytes;
}

}  // namespace rvd::test

// The registry never releases what a command line made; a test has many command lines.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:rvd::Container::\n";
}
