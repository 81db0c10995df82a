// The power-cut road: a template television prepared once per test, then for each cut a copy of
// it, a forked child that works on the copy over the cut VFS until the power goes, a second child
// that starts the service again on what is left, and the checks on the file and the mirror.
// Children talk to the test through a pipe, one line per fact. Used from the test's thread
// only; the test process itself runs no service and no thread, so that it may fork.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cut_vfs.h"
#include "process.h"
#include "tarvo_test.h"

namespace tarvo {
namespace test {

// A child's end of the pipe. Lines, written whole in one write each:
//   "call ID=0|1 ..."  a "set agreements" is going out     "ack"     its reply came back
//   "call-reset"       "request reset ostrel" is going out  "reset"   the reset has ended
//   "merge-begin"      an update from the server is asked   "merge-end" its records are stored
//   "mirror TEXT"      "default N"  the restarted service's vconf keys
//   "ops N"            the work ended after N operations    "fail WHY" the child gave up
class Reporter {
  public:
    explicit Reporter(int fd) : m_fd(fd) {}
    void Line(const std::string& text);
    [[noreturn]] void Fail(const std::string& why);
    // Ends the child; counters of a coverage build are written first.
    [[noreturn]] static void Exit(int code);

  private:
    int m_fd;
};

using ChildWork = std::function<void(Reporter&, uint64_t seed)>;

class PowerCut : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // tarvo-cloud on loopback serves the template television, whose network is up.
    void StartCloud();
    // TARVO_POWERCUT_CUTS, or `fallback`.
    static int Cuts(int fallback);
    // One clean run, then `cuts` runs each cut at a random operation of `work`.
    void RunCuts(const ChildWork& work, const ChildWork& restart, int cuts);

    TempRoot m_template;

  private:
    struct Child {
        int status = 0;
        std::vector<std::string> lines;
    };
    Child RunChild(const std::string& root, const ChildWork& work, const CutPlan* plan, uint64_t seed);
    // Empty when the copy at `root` holds what the lines of the two children promise.
    std::string Verify(const std::string& root, const Child& work, const Child& restart, bool cut);

    std::unique_ptr<ChildProcess> m_cloud;
    std::map<std::string, std::string> m_initial;  // the template's answers, by id
};

}  // namespace test
}  // namespace tarvo
