#include "report/print/picture.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>

#include "report/print/people.h"

namespace rvd::report {

namespace {

constexpr int kWidth = 1260, kTop = 96, kRow = 24, kTimeAt = 96;
// The daemon and the loader have room beside their lines for what is said on them.
constexpr std::array<int, 4> kLanes = {180, 500, 860, 1140};
constexpr std::array<const char*, 4> kNames = {"phone", "daemon", "driver", "boot loader"};
constexpr int kCharacter = 7;       // about as wide as one is
constexpr size_t kNoteLength = 90;  // characters, to the edge

int lane(Actor actor) {
    return kLanes[static_cast<size_t>(actor)];
}

std::string escaped(std::string_view text) {
    static const std::map<char, std::string> entities = {
            {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}};
    std::string safe;
    for (const char c : printable(text)) {
        const auto entity = entities.find(c);
        safe += entity == entities.end() ? std::string(1, c) : entity->second;
    }
    return safe;
}

// Cut between characters; the whole text shows when it is pointed at.
std::string shortened(const std::string& text, size_t length) {
    if (text.size() <= length) return text;
    size_t end = length;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        end--;
    return text.substr(0, end) + "\xE2\x80\xA6";
}

class Picture {
  public:
    Picture(const std::string& title, size_t rows) {
        const int height = kTop + kRow * static_cast<int>(rows) + 40;
        svg_ = fmt::format(
                "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" width=\"{0}\" "
                "height=\"{1}\" font-family=\"sans-serif\" font-size=\"12\">\n"
                "<style>text{{fill:#222;stroke:#fff;stroke-width:3;paint-order:stroke}} "
                ".fail{{fill:#b00020}} .time{{fill:#777}} "
                ".band{{fill:#7a5b00;stroke:none}} .actor{{stroke:none}} "
                "line{{stroke:#1d5fa8;stroke-width:1.3}} "
                "line.fail{{stroke:#b00020}} line.life{{stroke:#bbb;stroke-width:1}}</style>\n"
                "<defs><marker id=\"head\" markerWidth=\"9\" markerHeight=\"7\" refX=\"8\" "
                "refY=\"3.5\" orient=\"auto\"><path d=\"M0,0 L9,3.5 L0,7 z\" "
                "fill=\"context-stroke\"/></marker></defs>\n"
                "<rect width=\"{0}\" height=\"{1}\" fill=\"#fff\"/>\n",
                kWidth, height);
        svg_ += fmt::format("<text x=\"20\" y=\"30\" font-size=\"17\">{}</text>\n", escaped(title));
        for (size_t i = 0; i < kLanes.size(); i++) {
            svg_ += fmt::format(
                    "<rect x=\"{0}\" y=\"50\" width=\"110\" height=\"26\" rx=\"5\" "
                    "fill=\"#eaf1f9\" stroke=\"#1d5fa8\"/>\n<text class=\"actor\" x=\"{1}\" "
                    "y=\"68\" "
                    "text-anchor=\"middle\" font-size=\"13\">{2}</text>\n"
                    "<line class=\"life\" x1=\"{1}\" y1=\"76\" x2=\"{1}\" y2=\"{3}\"/>\n",
                    kLanes[i] - 55, kLanes[i], kNames[i], height - 20);
        }
    }

    void add(const Message& message) {
        const int y = kTop + kRow * row_++;
        if (message.band) return band(message, y);
        if (message.at != kNoTime && message.at != last_time_) {
            svg_ += fmt::format(
                    "<text class=\"time\" x=\"{}\" y=\"{}\" text-anchor=\"end\">{}</text>\n",
                    kTimeAt, y + 4, people_stamp(message.at));
            last_time_ = message.at;
        }
        if (message.from == message.to)
            note(message, y);
        else
            arrow(message, y);
    }

    std::string finish() { return svg_ + "</svg>\n"; }

  private:
    // Higher than a row's line, since the next arrow has its text above it.
    void band(const Message& message, int y) {
        svg_ += fmt::format(
                "<rect x=\"110\" y=\"{}\" width=\"{}\" height=\"18\" rx=\"4\" fill=\"#fff4d6\"/>\n"
                "<text class=\"band\" x=\"{}\" y=\"{}\" text-anchor=\"middle\">{}</text>\n",
                y - 14, kWidth - 130, (110 + kWidth - 20) / 2, y - 1, escaped(message.text));
    }

    void note(const Message& message, int y) {
        const int x = lane(message.from);
        svg_ += fmt::format("<circle cx=\"{}\" cy=\"{}\" r=\"3.5\" fill=\"{}\"/>\n", x, y,
                            message.failure ? "#b00020" : "#1d5fa8");
        // To the left where there is no room to the right.
        const bool left = x > kWidth / 2;
        text(message, left ? x - 10 : x + 10, y + 4, left ? "end" : "start", kNoteLength);
    }

    void arrow(const Message& message, int y) {
        const int from = lane(message.from), to = lane(message.to);
        svg_ += fmt::format(
                "<line{} x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\" "
                "marker-end=\"url(#head)\"/>\n",
                message.failure ? " class=\"fail\"" : "", from, y, to, y);
        text(message, (from + to) / 2, y - 6, "middle",
             static_cast<size_t>(std::abs(to - from) / kCharacter));
    }

    void text(const Message& message, int x, int y, const char* anchor, size_t length) {
        svg_ += fmt::format("<text{} x=\"{}\" y=\"{}\" text-anchor=\"{}\">{}",
                            message.failure ? " class=\"fail\"" : "", x, y, anchor,
                            escaped(shortened(message.text, length)));
        if (message.text.size() > length) svg_ += "<title>" + escaped(message.text) + "</title>";
        svg_ += "</text>\n";
    }

    std::string svg_;
    int row_ = 0;
    KernelTime last_time_ = kNoTime;
};

}  // namespace

std::string picture(const std::string& title, const std::vector<Message>& messages) {
    const size_t shown = std::min(messages.size(), kPictureRows);
    Picture picture(title, shown + (shown < messages.size() ? 1 : 0));
    for (size_t i = 0; i < shown; i++)
        picture.add(messages[i]);
    if (shown < messages.size()) {
        Message rest;
        rest.text = fmt::format("and {} more", messages.size() - shown);
        rest.band = true;
        picture.add(rest);
    }
    return picture.finish();
}

}  // namespace rvd::report
