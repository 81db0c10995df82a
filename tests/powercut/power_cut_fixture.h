// Per test a template television; per cut a copy, a forked child working on it over the cut VFS
// until the power goes, a second child restarting the service on what is left, then the checks.
// Children report through a pipe; the test process itself runs no service or thread, so it may fork.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cut_vfs.h"
#include "host_client.h"
#include "tarvo_test.h"

namespace tarvo::test {

// A child's end of the pipe, one whole line per write: "call ID=0|1 ..." / "ack" around a "set
// agreements", "call-reset" / "reset", "merge-begin" / "merge-end" around a server update; the
// restart's "mirror TEXT" and "default N"; "ops N" at the end of the work; "fail WHY".
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

}  // namespace tarvo::test
