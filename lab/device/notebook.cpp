#include "lab/device/notebook.h"

#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>

namespace rvd::lab {

namespace {

std::string escape(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\n' || c == '\\') result += '\\';
        result += c == '\n' ? 'n' : c;
    }
    return result;
}

std::string unescape(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            i++;
            result += text[i] == 'n' ? '\n' : text[i];
        } else {
            result += text[i];
        }
    }
    return result;
}

}  // namespace

bool Notebook::take(const std::string& path) {
    std::istringstream lines(read_file(path));
    unlink(path.c_str());
    std::string line;
    int panic = 0;
    if (!std::getline(lines, line) || sscanf(line.c_str(), "%" SCNd64 " %" SCNd64 " %zu %d", &start,
                                             &now, &position, &panic) != 4)
        return false;
    panicked = panic != 0;
    while (std::getline(lines, line)) {
        const std::string text = unescape(line.substr(1));
        switch (line[0]) {
            case 'C':
                crash_sentence = text;
                break;
            case 'L':
                log.push_back(text);
                break;
            case 'R':
                requests.push_back(text);
                break;
            case 'V':
                violations.push_back(text);
                break;
            case 'T':
                times[text.substr(text.find(' ') + 1)] = atoi(text.c_str());
                break;
            default:
                throw Unable(path + " is no notebook");
        }
    }
    return true;
}

void Notebook::store(const std::string& path) const {
    std::string text = format("%" PRId64 " %" PRId64 " %zu %d\n", start, now, position, panicked);
    if (!crash_sentence.empty()) text += "C" + escape(crash_sentence) + "\n";
    for (const std::string& line : log)
        text += "L" + escape(line) + "\n";
    for (const std::string& request : requests)
        text += "R" + escape(request) + "\n";
    for (const std::string& violation : violations)
        text += "V" + escape(violation) + "\n";
    for (const auto& [name, number] : times)
        text += format("T%d ", number) + name + "\n";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        fsync(fd) != 0)
        fail_errno("cannot write down where the run stands");
    close(fd);
}

}  // namespace rvd::lab
