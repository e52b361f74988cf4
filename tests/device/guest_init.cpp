// The first process of scripts/device-test's guest. Brings the machine up, runs the steps of
// "/plan" one after another and says on the report port how each ended. A step may take the machine
// down: it is run again when the machine is back, as long as it left its notebook behind.
//
// A line of "/plan": the boot node, the dump node, the step's name, its time limit in seconds and
// its command word by word, with tabs between them.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kReboots = 76;  // the lab's word for "run me again after a reboot"
constexpr char kNotebook[] = "/notes/run";
constexpr char kState[] = "/notes/state";
constexpr char kReportPort[] = "report";
constexpr int kPatience = 150;  // tenths of a second for a device to appear

int report_fd = -1;

// To the report port, and to the console for whoever watches.
void report(const std::string& line) {
    const std::string text = line + "\n";
    for (const int fd : {report_fd, STDOUT_FILENO}) {
        if (fd >= 0 && write(fd, text.data(), text.size()) < 0 && fd != STDOUT_FILENO) _exit(1);
    }
}

[[noreturn]] void power(int how) {
    sync();
    umount("/data");
    umount("/notes");
    reboot(how);
    for (;;)
        pause();
}

[[noreturn]] void give_up(const std::string& what) {
    report("guest\tcannot go on: " + what + ": " + strerror(errno));
    power(RB_POWER_OFF);
}

std::string read_line(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

void attach(const char* type, const char* device, const char* place) {
    mkdir(place, 0755);
    if (mount(device, place, type, 0, "") != 0 && errno != EBUSY)
        give_up(std::string("mount ") + place);
}

void load_module(const std::string& path, const std::string& parameters = "") {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || syscall(SYS_finit_module, fd, parameters.c_str(), 0) != 0)
        give_up("load " + path + " " + parameters);
    close(fd);
}

bool appears(const std::string& path) {
    for (int i = 0; i < kPatience; i++) {
        if (access(path.c_str(), F_OK) == 0) return true;
        usleep(100'000);
    }
    return false;
}

// Disks come in no certain order; each carries its name as its serial number.
std::string disk_called(const std::string& name) {
    for (int i = 0; i < kPatience; i++) {
        for (const char* disk : {"vda", "vdb"}) {
            if (read_line(std::string("/sys/block/") + disk + "/serial") == name &&
                access((std::string("/dev/") + disk).c_str(), F_OK) == 0)
                return std::string("/dev/") + disk;
        }
        usleep(100'000);
    }
    give_up("no disk \"" + name + "\"");
}

// So is the port, whose name tells.
int open_port(const std::string& name) {
    const std::string ports = "/sys/class/virtio-ports/";
    for (int i = 0; i < kPatience; i++) {
        DIR* directory = opendir(ports.c_str());
        for (dirent* entry; directory != nullptr && (entry = readdir(directory)) != nullptr;) {
            if (read_line(ports + entry->d_name + "/name") != name) continue;
            const std::string device = std::string("/dev/") + entry->d_name;
            const int fd = open(device.c_str(), O_WRONLY | O_CLOEXEC);
            if (fd >= 0) {
                closedir(directory);
                return fd;
            }
        }
        if (directory != nullptr) closedir(directory);
        usleep(100'000);
    }
    give_up("no port \"" + name + "\"");
}

void bring_up() {
    attach("devtmpfs", "devtmpfs", "/dev");
    const int console = open("/dev/console", O_RDWR);
    for (int fd = 0; fd < 3; fd++)
        dup2(console, fd);
    attach("proc", "proc", "/proc");
    attach("sysfs", "sysfs", "/sys");
    attach("tmpfs", "tmpfs", "/tmp");
    std::ifstream order("/modules/order");
    for (std::string name; std::getline(order, name);)
        load_module("/modules/" + name);
    report_fd = open_port(kReportPort);
    attach("ext4", disk_called("data").c_str(), "/data");
    attach("ext4", disk_called("notes").c_str(), "/notes");
}

struct Step {
    std::string boot, dump, name;
    int limit;
    std::vector<std::string> command;
};

std::vector<Step> read_plan() {
    std::vector<Step> plan;
    std::ifstream file("/plan");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        Step step;
        std::string word;
        std::getline(words, step.boot, '\t');
        std::getline(words, step.dump, '\t');
        std::getline(words, step.name, '\t');
        std::getline(words, word, '\t');
        step.limit = atoi(word.c_str());
        while (std::getline(words, word, '\t'))
            step.command.push_back(word);
        plan.push_back(step);
    }
    return plan;
}

void write_state(size_t step, bool started) {
    const std::string text = std::to_string(step) + (started ? " started" : " due") + "\n";
    const int fd = open(kState, O_WRONLY | O_CREAT | O_TRUNC | O_SYNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, text.data(), text.size()) < 0) give_up(kState);
    close(fd);
}

int start(const Step& step, pid_t& pid) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) give_up("pipe");
    pid = fork();
    if (pid < 0) give_up("fork");
    if (pid == 0) {
        setsid();
        dup2(ends[1], 1);
        dup2(ends[1], 2);
        std::vector<char*> words;
        for (const std::string& word : step.command)
            words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        execv(words[0], words.data());
        _exit(127);
    }
    close(ends[1]);
    return ends[0];
}

// Passes on what the step says until it ends. Its exit status, or -1 where it had to be ended.
int run(const Step& step) {
    pid_t pid = -1;
    const int output = start(step, pid);
    timespec begin{};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    std::string line;
    for (;;) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const time_t left = begin.tv_sec + step.limit - now.tv_sec;
        pollfd ready = {output, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left * 1000)) == 0) {
            kill(-pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            close(output);
            return -1;
        }
        char buffer[4096];
        const ssize_t n = read(output, buffer, sizeof(buffer));
        if (n <= 0) break;
        for (ssize_t i = 0; i < n; i++) {
            if (buffer[i] != '\n') {
                line += buffer[i];
                continue;
            }
            report("story\t" + line);
            line.clear();
        }
    }
    close(output);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What a step's processes had open may take a moment to close.
bool unload_relay() {
    for (int i = 0; i < kPatience; i++) {
        if (syscall(SYS_delete_module, "relay", O_NONBLOCK) == 0) return true;
        usleep(100'000);
    }
    return false;
}

void play(const Step& step, size_t index) {
    write_state(index, true);
    load_module("/modules/relay.ko", "boot=" + step.boot + " dump=" + step.dump);
    if (!appears("/dev/" + step.boot) || !appears("/dev/" + step.dump)) give_up("the nodes");
    const int result = run(step);
    if (result == kReboots) {
        report("down\treboot");
        power(RB_AUTOBOOT);
    }
    unlink(kNotebook);
    if (!unload_relay())
        report("wrong\tthe relay module can't be unloaded: something is left open");
    if (result == -1) {
        report("wrong\tit took longer than " + std::to_string(step.limit) + " s");
    } else if (result != 0) {
        report("wrong\tits exit status is " + std::to_string(result));
    }
    report("end\t" + step.name);
}

}  // namespace

int main() {
    bring_up();
    const std::vector<Step> plan = read_plan();
    size_t next = 0;
    char word[16] = "due";
    if (sscanf(read_line(kState).c_str(), "%zu %15s", &next, word) == 2 &&
        strcmp(word, "started") == 0) {
        if (access(kNotebook, F_OK) == 0) {
            report("up\tagain");
        } else {
            report("wrong\tthe machine went down unasked");
            report("end\t" + plan[next].name);
            next++;
        }
    }
    for (bool again = access(kNotebook, F_OK) == 0; next < plan.size(); next++) {
        if (!again) report("begin\t" + plan[next].name);
        again = false;
        play(plan[next], next);
        write_state(next + 1, false);
    }
    report("guest\tall done");
    power(RB_POWER_OFF);
}
