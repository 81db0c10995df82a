// The clone copies against a clone folder prepared on a USB stick: a link in the file's or the
// folder's place, or a FIFO, is a failed copy that leaves the link's target as it was.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iterator>

#include "store_fixture.h"

using namespace store_test;
namespace fs = std::filesystem;

namespace {

class CloneLinks : public StartedStore {
  protected:
    void SetUp() override {
        StartedStore::SetUp();
        Put(Record("tnc"));
    }
    std::string CloneFolder() { return fs::path(root.At(kCloneDataBase)).parent_path(); }
    std::string WaitingClone() { return root.At(kDataBase) + "_clone"; }
};

TEST_F(CloneLinks, ALinkOrFifoInTheCloneFolderIsAFailedCopyThatTouchesNothing) {
    const std::string victim = root.At("/victim");
    const std::string victimFolder = root.At("/victim_folder");
    const std::string untouched = "the victim's own bytes";
    enum Direction { kToUsb, kFromUsb };
    const auto link_file = [&] { fs::create_symlink(victim, root.At(kCloneDataBase)); };
    const auto link_folder = [&] {
        fs::remove_all(CloneFolder());
        fs::create_symlink(victimFolder, CloneFolder());
    };
    const struct {
        const char* name;
        Direction direction;
        std::function<void()> plant;
        const char* logLine;
    } cases[] = {
        {"clone file links to a file", kToUsb, link_file, "fail open 2:"},
        {"clone file links to nothing yet", kToUsb,
         [&] {
             fs::remove(victim);
             link_file();
         },
         "fail open 2:"},
        {"clone folder links to a folder", kToUsb, link_folder, "fail open 2:"},
        {"clone file links to a file", kFromUsb, link_file, "fail open 1:"},
        {"clone folder links to a folder", kFromUsb, link_folder, "fail open 1:"},
        {"clone file is a FIFO", kFromUsb,
         [&] { ASSERT_EQ(0, mkfifo(root.At(kCloneDataBase).c_str(), 0644)); }, "fail open 1:"},
        {"waiting clone file links to a file", kFromUsb,
         [&] {
             ASSERT_TRUE(store->CopyCloneDataTVtoUSB());
             fs::create_symlink(victim, WaitingClone());
         },
         "fail open 2:"},
    };
    for (const auto& c : cases) {
        const std::string what = std::string(c.direction == kToUsb ? "to USB: " : "from USB: ") + c.name;
        fs::remove_all(CloneFolder());
        fs::create_directory(CloneFolder());
        fs::remove(WaitingClone());
        fs::remove_all(victimFolder);
        fs::create_directory(victimFolder);
        tarvo::test::WriteFile(victim, untouched);
        tarvo::test::WriteFile(victimFolder + "/data.db", untouched);
        c.plant();
        const std::string before = fs::exists(victim) ? tarvo::test::ReadFile(victim) : "<none>";
        const size_t failures = log.Count(c.logLine);

        EXPECT_FALSE(c.direction == kToUsb ? store->CopyCloneDataTVtoUSB() : store->CopyCloneDataUSBtoTV())
            << what;
        EXPECT_EQ(log.Count(c.logLine), failures + 1) << what;
        EXPECT_EQ(fs::exists(victim) ? tarvo::test::ReadFile(victim) : "<none>", before) << what;
        EXPECT_EQ(tarvo::test::ReadFile(victimFolder + "/data.db"), untouched) << what;
        EXPECT_EQ(std::distance(fs::directory_iterator(victimFolder), fs::directory_iterator()), 1) << what;
        if (c.direction == kFromUsb) {
            // Nothing waits to replace the store at the next start but the planted link itself.
            EXPECT_TRUE(!fs::exists(fs::symlink_status(WaitingClone())) || fs::is_symlink(WaitingClone()))
                << what;
        }
    }

    // Plain files still go both ways.
    fs::remove_all(CloneFolder());
    fs::remove(WaitingClone());
    ASSERT_TRUE(store->CopyCloneDataTVtoUSB());
    ASSERT_TRUE(store->CopyCloneDataUSBtoTV());
    EXPECT_EQ(tarvo::test::ReadFile(root.At(kDataBase)), tarvo::test::ReadFile(WaitingClone()));
}

}  // namespace
