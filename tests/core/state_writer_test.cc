// The writer of state files on its own: what shares a write, what waits for it, and what becomes of
// failures. Built with ThreadSanitizer where no other sanitizer is at work. A lock on the file
// (flock) holds the thread up; it gives in after two seconds by itself.
#include "core/state_writer.h"

#include <sys/file.h>

#include "core/connection.h"
#include "lib/file.h"
#include "tests/lib/file_fixture.h"

namespace {

int visits = 0;

}  // namespace

// Stand-ins for the loop.
void visit_soon(conn*) {
    ++visits;
}
void wake_poll_set() {}

namespace {

class state_writer_test : public file_test {
  protected:
    ~state_writer_test() override { finish_state_writes(); }

    // Asks for a write whose content is a variable of the test, as a subsystem's would be.
    void ask() {
        write_state({.path = file(),
                     .content =
                         [this] {
                             ++made;
                             return content;
                         },
                     .written = [this](int error) { errors.push_back(error); }});
    }
    // The same of this text in this file.
    void ask(const std::string& path, const std::string& text, const std::string& dropped = "",
             const std::shared_ptr<known_file>& known = nullptr) {
        write_state({.path = path,
                     .content = [text] { return text; },
                     .dropped = dropped,
                     .known = known,
                     .written = [this](int error) { errors.push_back(error); }});
    }
    void change(const std::string& text) {
        content = text;
        ask();
    }
    std::string file() const { return path("state"); }
    static auto wait() { return std::make_unique<write_wait>(nullptr); }
    // A pass of the loop.
    static void pass() {
        finish_background_jobs();
        start_state_writes();
    }
    template <class Condition>
    static void pass_until(Condition condition) {
        while (!condition()) {
            pass();
            std::this_thread::yield();
        }
    }
    unique_fd lock() const {
        unique_fd fd(open(file().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_EQ(flock(fd.get(), LOCK_EX), 0);
        return fd;
    }

    std::string content;
    int made = 0;
    std::vector<int> errors;
};

// First: no thread may exist yet.
TEST_F(state_writer_test, WithoutThreadsTheLoopWritesItself) {
    ASSERT_EQ(chmod(folder_.c_str(), 0777), 0);
    EXPECT_TRUE(holds_in_child([&] {
        const rlimit none{0, 0};
        if ((getuid() == 0 && setuid(65534) != 0) || setrlimit(RLIMIT_NPROC, &none) != 0) {
            return false;
        }
        change("x");
        const write_wait waiting(nullptr);
        start_state_writes();
        return waiting.over() && visits == 1 && read(file()) == "x" && errors == std::vector{0};
    }));
}

TEST_F(state_writer_test, ChangesMeanwhileShareTheNextWrite) {
    visits = 0;
    unique_fd held = lock();
    const auto nothing = wait();
    EXPECT_TRUE(nothing->over());
    change("1");
    change("2");
    const auto first = wait();
    pass();
    EXPECT_EQ(made, 1) << "changes of one pass share a write";
    change("3");
    const auto second = wait();
    change("4");
    auto withdrawn = wait();
    withdrawn.reset();
    pass();
    EXPECT_EQ(made, 1) << "the next write begins when the first is over";
    EXPECT_TRUE(!first->over() && !second->over() && state_write_pending(file()));
    EXPECT_EQ(read(file()), "") << "no wait is over before its content stands";
    held.reset();
    pass_until([&] { return first->over(); });
    EXPECT_TRUE(read(file()) == "2" || read(file()) == "4");
    pass_until([&] { return second->over(); });
    EXPECT_EQ(read(file()), "4");
    EXPECT_EQ(made, 2);
    EXPECT_EQ(visits, 2);
    EXPECT_TRUE(errors == (std::vector{0, 0}) && !state_write_pending(file()));
}

struct look_job : background_job {
    std::string path;
    std::string* seen;
    void run() override { std::getline(std::ifstream(path), found); }
    void finish() override { *seen = found; }
    std::string found;
};

TEST_F(state_writer_test, SettledContentIsWrittenAndReadBehindTheWrites) {
    unique_fd held = lock();
    change("1");
    pass();
    change("2");
    settle_state_writes();
    content = "gone";
    EXPECT_EQ(made, 2);
    std::string seen;
    auto job = std::make_unique<look_job>();
    job->path = file();
    job->seen = &seen;
    run_behind_writes(std::move(job));
    change("3");
    const auto last = wait();
    held.reset();
    finish_state_writes();
    EXPECT_EQ(seen, "2");
    EXPECT_TRUE(last->over());
    EXPECT_EQ(read(file()), "3");
}

TEST_F(state_writer_test, OnlyWhatStandsAlreadyIsNotWrittenAgain) {
    const auto inode_after = [&](const std::string& text) {
        change(text);
        finish_state_writes();
        EXPECT_EQ(read(file()), text);
        EXPECT_TRUE(state_file_is_ours(file()));
        return stamp_of(file().c_str()).inode;
    };
    write(file(), "one");
    const ino_t foreign = stamp_of(file().c_str()).inode;
    EXPECT_FALSE(state_file_is_ours(file()));
    const ino_t first = inode_after("one");
    EXPECT_NE(first, foreign) << "equal content of somebody else may not be on the disk";
    EXPECT_EQ(inode_after("one"), first);
    write(file(), "one");
    const ino_t second = inode_after("one");
    EXPECT_NE(second, first);
    EXPECT_NE(inode_after("two"), second);
    write(file(), "2nd");
    EXPECT_FALSE(state_file_is_ours(file()));
    (void)inode_after("two");
    std::filesystem::remove(file());
    (void)inode_after("two");
}

TEST_F(state_writer_test, AFailureIsToldAndTheNextChangeTriesAgain) {
    const std::string folder = path("sub");
    const std::string below = folder + "/state";
    const auto ask_below = [&] {
        ask(below, "x");
        const auto waiting = wait();
        pass_until([&] { return waiting->over(); });
    };
    ask_below();
    EXPECT_FALSE(state_file_is_ours(below));
    std::filesystem::create_directory(folder);
    ask_below();
    EXPECT_TRUE(state_file_is_ours(below));
    EXPECT_EQ(errors, (std::vector{ENOENT, 0}));
    EXPECT_EQ(read(below), "x");
}

TEST_F(state_writer_test, LinesThatWouldBeLostAreSavedFirst) {
    const std::string backup = file() + ".bak";
    const auto drop = [&](const std::string& lines) { ask(file(), "new", lines); };
    write(file(), "old");
    write(backup, "somebody's");
    drop("a\n");
    drop("b\n");
    finish_state_writes();
    drop("");
    finish_state_writes();
    EXPECT_EQ(read(backup), "somebody's\na\nb\n") << "once each";
    // Where they can't be saved, the file stays as it is, and the next write tries again.
    write(file(), "old");
    std::filesystem::remove(backup);
    ASSERT_EQ(symlink("elsewhere", backup.c_str()), 0);
    drop("c\n");
    finish_state_writes();
    EXPECT_EQ(read(file()), "old");
    std::filesystem::remove(backup);
    drop("d\n");
    finish_state_writes();
    EXPECT_EQ(read(backup), "c\nd\n");
    EXPECT_EQ(errors, (std::vector{0, 0, ELOOP, 0}));
}

TEST_F(state_writer_test, EditsOfSomebodyElseAreSavedOnce) {
    const std::string backup = file() + ".bak";
    write(file(), "a\n");
    const auto known = std::make_shared<known_file>(known_file{stamp_of(file().c_str())});
    const auto write_as = [&](const std::string& text, const std::string& lost) {
        ask(file(), text, lost, known);
        finish_state_writes();
        return std::exchange(known->rescued, 0);
    };
    EXPECT_EQ(write_as("b\n", ""), 0U) << "what was read may go";
    ASSERT_EQ(chmod(file().c_str(), 0600), 0);
    EXPECT_EQ(write_as("c\n", ""), 0U) << "its rights are not its content";
    write(file(), "# why\n\nc\nmine\nlost\nmine too");
    std::filesystem::create_directory(backup);
    EXPECT_EQ(write_as("c\n", "lost\n"), 0U);
    EXPECT_EQ(read(file()).substr(0, 5), "# why") << "not before they are saved";
    std::filesystem::remove(backup);
    EXPECT_EQ(write_as("d\n", ""), 3U);
    EXPECT_EQ(write_as("e\n", ""), 0U);
    EXPECT_EQ(read(file()), "e\n");
    write(file(), "again\n");
    unique_fd held = lock();
    EXPECT_EQ(write_as("f\n", ""), 1U);
    held.reset();
    EXPECT_EQ(write_as("g\n", ""), 0U) << "saved by the write that failed";
    EXPECT_EQ(read(backup), "lost\nc\nmine\nmine too\nagain\n");
    EXPECT_EQ(errors, (std::vector{0, 0, EISDIR, 0, 0, EBUSY, 0}));
    std::filesystem::remove(file());
    EXPECT_EQ(write_as("f\n", ""), 0U);
}

// Whatever was answered is in the file at that moment, while 16 requests at a time change it.
TEST_F(state_writer_test, NoAnswerBeforeItsContentStands) {
    std::vector<std::pair<int, std::unique_ptr<write_wait>>> open;
    for (int next = 0; next < 300 || !open.empty();) {
        while (next < 300 && open.size() < 16) {
            content += std::to_string(next) + "\n";
            ask();
            open.emplace_back(next++, wait());
        }
        pass();
        std::erase_if(open, [&](const auto& request) {
            if (!request.second->over()) {
                return false;
            }
            const std::string text = "\n" + read(file());
            EXPECT_TRUE(contains(text, "\n" + std::to_string(request.first) + "\n"));
            return true;
        });
    }
    EXPECT_LT(made, 300);
    EXPECT_EQ(read(file()), content);
}

}  // namespace
