// What tarvoctl prints for people: the width it wraps to, UTF-8 text measured in screen
// columns, word wrapping, and the progress line of the verbs that wait. Main thread only.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace tarvoctl {

bool StdoutIsTerminal();
bool StderrIsTerminal();
// The terminal's columns when stdout is one, else 80.
size_t OutputWidth();

// Screen columns of UTF-8 text: wide East Asian characters count two, control bytes none.
size_t DisplayWidth(const std::string& text);
// `text` broken into lines of at most `width` columns at blanks; a word wider than a line is
// cut. Line breaks in the text are kept, and an empty text gives no line.
std::vector<std::string> Wrap(const std::string& text, size_t width);
// Prints `text` wrapped to the output width, each line after `indent`.
void PrintWrapped(const std::string& text, const std::string& indent);
// Takes out the ANSI colour sequences (ESC [ ... letter).
std::string StripAnsi(const std::string& text);

// One line on stderr that is redrawn in place: the time waited so far and what is awaited.
// Silent when stderr is no terminal; the line is cleared when the object goes.
class Progress {
  public:
    explicit Progress(std::chrono::milliseconds limit);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Redraws the line with `awaited` as what is waited for now.
    void Show(const std::string& awaited);
    // Clears the line, so that a message can be printed below it.
    void Clear();
    std::chrono::milliseconds Elapsed() const;

  private:
    const bool m_enabled;
    const std::chrono::steady_clock::time_point m_start;
    const std::chrono::milliseconds m_limit;
    bool m_drawn = false;
};

}  // namespace tarvoctl
