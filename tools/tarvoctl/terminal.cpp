#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <iostream>

namespace tarvoctl {

namespace {

constexpr size_t kDefaultWidth = 80;

// The code point starting at text[i] and its length in bytes; a broken sequence counts as one byte.
char32_t DecodeAt(const std::string& text, size_t i, size_t& length) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const size_t extra = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : byte >= 0xC0 ? 1 : 0;
    length = 1;
    if (extra == 0 || i + extra >= text.size()) return byte;
    char32_t point = extra == 3 ? byte & 0x07 : extra == 2 ? byte & 0x0F : byte & 0x1F;
    for (size_t k = 1; k <= extra; ++k) {
        const auto next = static_cast<unsigned char>(text[i + k]);
        if ((next & 0xC0) != 0x80) return byte;
        point = (point << 6) | (next & 0x3F);
    }
    length = extra + 1;
    return point;
}

bool IsWide(char32_t c) {
    return (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) || (c >= 0xAC00 && c <= 0xD7A3) ||
           (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
           (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1FAFF) || (c >= 0x20000 && c <= 0x3FFFD);
}

size_t PointWidth(char32_t c) {
    if (c < 0x20 || c == 0x7F) return 0;
    return IsWide(c) ? 2 : 1;
}

void WrapParagraph(const std::string& paragraph, size_t width, std::vector<std::string>& lines) {
    std::string line;
    size_t line_width = 0;
    auto flush = [&] {
        if (line_width > 0) lines.push_back(line);
        line.clear();
        line_width = 0;
    };
    size_t start = 0;
    while (start < paragraph.size()) {
        size_t end = paragraph.find(' ', start);
        if (end == std::string::npos) end = paragraph.size();
        const std::string word = paragraph.substr(start, end - start);
        start = end + 1;
        if (word.empty()) continue;
        const size_t word_width = DisplayWidth(word);
        if (line_width > 0 && line_width + 1 + word_width > width) flush();
        if (word_width <= width) {
            if (line_width > 0) {
                line += ' ';
                ++line_width;
            }
            line += word;
            line_width += word_width;
            continue;
        }
        // A word wider than a whole line is cut where each line is full.
        for (size_t i = 0; i < word.size();) {
            size_t length = 1;
            const size_t w = PointWidth(DecodeAt(word, i, length));
            if (line_width + w > width) flush();
            line += word.substr(i, length);
            line_width += w;
            i += length;
        }
    }
    flush();
}

}  // namespace

bool StdoutIsTerminal() { return isatty(STDOUT_FILENO) != 0; }

bool StderrIsTerminal() { return isatty(STDERR_FILENO) != 0; }

size_t OutputWidth() {
    winsize size{};
    if (StdoutIsTerminal() && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20) {
        return size.ws_col;
    }
    return kDefaultWidth;
}

size_t DisplayWidth(const std::string& text) {
    size_t width = 0;
    for (size_t i = 0; i < text.size();) {
        size_t length = 1;
        width += PointWidth(DecodeAt(text, i, length));
        i += length;
    }
    return width;
}

std::vector<std::string> Wrap(const std::string& text, size_t width) {
    std::vector<std::string> lines;
    if (width == 0) width = 1;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const size_t before = lines.size();
        WrapParagraph(text.substr(start, end - start), width, lines);
        // An empty line in the text stays as a paragraph break.
        if (lines.size() == before) lines.emplace_back();
        start = end + 1;
    }
    return lines;
}

void PrintWrapped(const std::string& text, const std::string& indent) {
    const size_t width = OutputWidth();
    const size_t room = width > indent.size() + 10 ? width - indent.size() : 10;
    for (const auto& line : Wrap(text, room)) std::cout << (line.empty() ? "" : indent) << line << "\n";
}

std::string StripAnsi(const std::string& text) {
    std::string plain;
    plain.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\033' && i + 1 < text.size() && text[i + 1] == '[') {
            size_t j = i + 2;
            while (j < text.size() && !(text[j] >= '@' && text[j] <= '~')) ++j;
            i = j;
            continue;
        }
        plain += text[i];
    }
    return plain;
}

Progress::Progress(std::chrono::milliseconds limit)
    : m_enabled(StderrIsTerminal()), m_start(std::chrono::steady_clock::now()), m_limit(limit) {}

Progress::~Progress() { Clear(); }

void Progress::Show(const std::string& awaited) {
    if (!m_enabled) return;
    const auto waited = std::chrono::duration_cast<std::chrono::seconds>(Elapsed()).count();
    const auto limit = (m_limit.count() + 999) / 1000;
    std::string line =
        "waiting " + std::to_string(waited) + " s of " + std::to_string(limit) + " s: " + awaited;
    winsize size{};
    const size_t columns =
        ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kDefaultWidth;
    // A line longer than the terminal would wrap, and the carriage return would then redraw only
    // its last row.
    if (DisplayWidth(line) >= columns) line = Wrap(line, columns - 1).front();
    std::cerr << "\r\033[K" << line << std::flush;
    m_drawn = true;
}

void Progress::Clear() {
    if (!m_drawn) return;
    std::cerr << "\r\033[K" << std::flush;
    m_drawn = false;
}

std::chrono::milliseconds Progress::Elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_start);
}

}  // namespace tarvoctl
