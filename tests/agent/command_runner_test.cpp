#include "agent/command_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "agent/command_words.h"
#include "agent/process_host.h"
#include "base/descriptor.h"
#include "platform/adapters.h"
#include "support/corpus.h"
#include "support/doubles.h"

namespace sorvane::agent {
namespace {

using namespace std::chrono_literals;
using test::TemporaryFolder;

class Runner : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { host_ = platform::makeProcessHost(); }
  static void TearDownTestSuite() { host_.reset(); }

  CommandRequest shell(const std::string& script, std::chrono::seconds limit = 60s) {
    CommandRequest request;
    request.words = {"sh", "-c", script};
    request.directory = folder_.path().string();
    request.timeLimit = limit;
    add(request, "PATH", "/usr/bin:/bin", false);
    return request;
  }
  static void add(CommandRequest& request, const std::string& name, std::string_view value, bool secret = true) {
    request.environment.push_back({name, base::SecretText(value), secret});
  }
  CommandRunner::Outcome run(const CommandRequest& request) {
    CommandControl control;
    return runner_.run(request, control);
  }
  std::string file(const std::string& name) { return (folder_.path() / name).string(); }

  /// Reads a pid that a command wrote, and waits until that process is gone.
  static bool ends(const std::string& path, std::chrono::milliseconds within) {
    const int pid = std::stoi(test::textOfFile(path));
    const base::Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!process) return errno == ESRCH;
    pollfd wait{process.get(), POLLIN, 0};
    return ::poll(&wait, 1, static_cast<int>(within.count())) == 1;
  }

  static std::unique_ptr<ProcessHost> host_;
  TemporaryFolder folder_;
  CommandRunner runner_{*host_};
};
std::unique_ptr<ProcessHost> Runner::host_;

TEST_F(Runner, runsACommandWithNothingButWhatItWasGiven) {
  CommandRequest request =
      shell("env | sort; pwd; read x || echo no input; ls /proc/self/fd | wc -l; echo err >&2; exit 7");
  add(request, "TOKEN", "made-up-token");
  request.warnings = {"a warning"};
  const auto outcome = run(request);
  EXPECT_FALSE(outcome.failure);
  EXPECT_TRUE(outcome.result.started);
  EXPECT_EQ(outcome.result.exitCode, 7);
  EXPECT_EQ(outcome.result.warnings, request.warnings);
  // Three descriptors, and the one that ls reads the folder with.
  EXPECT_EQ(outcome.result.output, "PATH=/usr/bin:/bin\nPWD=" + request.directory + "\nTOKEN=‹redacted›\n" +
                                       request.directory + "\nno input\n4\nerr\n");
}

TEST_F(Runner, refusesWhatCannotBeStarted) {
  CommandRequest none = shell("true");
  none.words.clear();
  EXPECT_EQ(run(none).failure, "Enter a valid command.");
  std::ofstream(file("plain")) << "x";
  std::filesystem::create_symlink(file("loop"), file("loop"));
  for (const std::string& folder : {std::string("relative"), std::string(), file("none"), file("plain"), file("loop"),
                                    "/" + std::string(5000, 'd')}) {
    CommandRequest request = shell("true");
    request.directory = folder;
    const auto outcome = run(request);
    EXPECT_EQ(outcome.failure, "Project folder is missing. Choose an existing absolute directory.");
    EXPECT_FALSE(outcome.result.started);
  }
  CommandControl control;
  control.stop();
  EXPECT_EQ(runner_.run(shell("echo ran"), control).failure, "Command cancelled.");
  CommandRequest missing = shell("");
  missing.words = {"no-such-program-of-sorvane"};
  EXPECT_EQ(run(missing).result.exitCode, 127);
  CommandRequest huge = shell("true");
  add(huge, "BIG", std::string(3'000'000, 'x'), false);
  EXPECT_EQ(run(huge).failure, "Argument list too long");
}

TEST_F(Runner, tellsASignalFromAnExitCode) {
  EXPECT_EQ(run(shell("kill -9 $$")).result.exitCode, 128 + SIGKILL);
  EXPECT_EQ(run(shell("exit 255")).result.exitCode, 255);
}

TEST_F(Runner, cutsMaskedOutputAtTheLimitAndNeverShowsPartOfAValue) {
  const auto output = [&](int dots, const std::string& tail) {
    CommandRequest request =
        shell("head -c " + std::to_string(dots) + " /dev/zero | tr '\\0' .; printf %s \"" + tail + "\"");
    add(request, "VALUE", "0123456789abcdef");
    return run(request).result.output;
  };
  const std::string note = "\n…[output truncated at 200,000 bytes]";
  EXPECT_EQ(output(200000, ""), std::string(200000, '.'));
  EXPECT_EQ(output(200001, ""), std::string(200000, '.') + note);
  const std::string straddling = output(199995, "$VALUE");
  EXPECT_EQ(straddling.find("0123"), std::string::npos);
  EXPECT_TRUE(straddling.starts_with(std::string(199995, '.') + "‹"));
  EXPECT_EQ(output(5'000'000, "$VALUE"), std::string(200000, '.') + note);
}

TEST_F(Runner, stopsACommandAtItsTimeLimit) {
  const auto started = std::chrono::steady_clock::now();
  const auto outcome = run(shell("echo begun; exec sleep 600", 1s));
  EXPECT_EQ(outcome.result.output, "begun\n\n…[command stopped or timed out after at most 1s]");
  EXPECT_EQ(outcome.result.exitCode, 128 + SIGTERM);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 30s);
}

TEST_F(Runner, killsACommandThatIgnoresTheRequestToStop) {
  ASSERT_EQ(::mkfifo(file("ready").c_str(), 0600), 0);
  CommandControl control;
  std::thread stopper([&] {
    std::ifstream(file("ready")).get();  // the command says that it listens to no signal now
    control.stop();
    control.stop();
  });
  const auto outcome = runner_.run(shell("trap '' TERM; echo x > ready; while :; do sleep 0.05; done"), control);
  stopper.join();
  EXPECT_EQ(outcome.result.exitCode, 128 + SIGKILL);
  EXPECT_NE(outcome.result.output.find("[command stopped or timed out after at most 60s]"), std::string::npos);
}

TEST_F(Runner, aDescendantThatHoldsTheOutputDoesNotHoldTheAnswerAndIsEnded) {
  // Left its process group and session, forked twice, ignores SIGTERM: only its ancestry still tells whose it is.
  const auto outcome =
      run(shell("setsid sh -c 'trap \"\" TERM; (sh -c \"echo \\$\\$ > pid; mv pid left; while :; do sleep 0.1; done\" "
                "&) ; exit' & "
                "while [ ! -e left ]; do sleep 0.01; done; echo done"));
  EXPECT_EQ(outcome.result.output, "done\n");
  EXPECT_EQ(outcome.result.exitCode, 0);
  EXPECT_TRUE(ends(file("left"), 20s));
}

TEST_F(Runner, commandsEndWhenTheApplicationDies) {
  const pid_t application = ::fork();
  if (application == 0) {
    const auto host = platform::makeProcessHost();
    CommandRunner runner(*host);
    CommandControl control;
    std::thread killer([&] {
      while (!std::filesystem::exists(file("running"))) std::this_thread::sleep_for(1ms);
      ::kill(::getpid(), SIGKILL);
    });
    runner.run(shell("echo $$ > pid; mv pid running; exec sleep 600"), control);
    ::_exit(1);
  }
  int status = 0;
  ::waitpid(application, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_TRUE(ends(file("running"), 20s));
}

TEST_F(Runner, aCommandsGroupStaysItsOwnUntilWhatItLeftIsCleared) {
  LaunchSpec spec;
  spec.words = {"true"};
  spec.environment.emplace_back("PATH=/usr/bin:/bin");
  spec.directory = folder_.path().string();
  const auto process = host_->launch(spec);
  pollfd end{process->ended(), POLLIN, 0};
  ASSERT_EQ(::poll(&end, 1, 20'000), 1);
  // Whoever still signals the group now must not reach a stranger that got its number.
  EXPECT_EQ(::kill(-process->group(), 0), 0);
  EXPECT_EQ(process->wait(), 0);
  const base::Descriptor leader(static_cast<int>(::syscall(SYS_pidfd_open, process->group(), 0)));
  ASSERT_TRUE(leader);
  process->clear();
  pollfd cleared{process->ended(), POLLIN, 0};
  ASSERT_EQ(::poll(&cleared, 1, 20'000), 1);  // the supervisor has nothing left to do and closes its end
  EXPECT_EQ(::kill(process->group(), 0), -1);
}

TEST_F(Runner, outputComesBackWhereTheApplicationStartedWithoutItsStandardDescriptors) {
  const CommandRequest request = shell("echo out; echo err >&2; exit 3");
  const pid_t application = ::fork();
  if (application == 0) {
    for (const int fd : {0, 1, 2}) ::close(fd);
    auto host = platform::makeProcessHost();
    CommandControl control;
    const auto result = CommandRunner(*host).run(request, control).result;
    host.reset();  // ends once its process has heard that nobody is there any more
    ::_exit(result.output == "out\nerr\n" && result.exitCode == 3 ? 0 : 1);
  }
  int status = 0;
  ::waitpid(application, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Runner, manyAtOnceKeepTheirOutputApart) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5; ++i) {
        CommandRequest request = shell("echo $VALUE; echo $PLAIN");
        add(request, "VALUE", "value-of-" + std::to_string(t));
        add(request, "PLAIN", "plain-" + std::to_string(t), false);
        EXPECT_EQ(run(request).result.output, "‹redacted›\nplain-" + std::to_string(t) + "\n");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(CommandWords, areAnArrayWhoseFirstWordIsAProgram) {
  EXPECT_EQ(decodeCommandWords(R"(["npm","run","a b=c","-x",""])"),
            (std::vector<std::string>{"npm", "run", "a b=c", "-x", ""}));
  for (const char* wrong : {"", "[]", "{}", "\"npm\"", "[1]", "[\"a\",null]", "[\"\"]", "[\"-i\"]", "[\"A=b\",\"env\"]",
                            R"(["a\u0000b"])", R"(["a",["b"]])", "[\"a\"] x"}) {
    EXPECT_EQ(decodeCommandWords(wrong), std::nullopt) << wrong;
  }
  std::string many = "[\"a\"";
  for (std::size_t i = 1; i < kMaxCommandWords; ++i) many += ",\"b\"";
  EXPECT_TRUE(decodeCommandWords(many + "]"));
  EXPECT_FALSE(decodeCommandWords(many + ",\"b\"]"));
}

}  // namespace
}  // namespace sorvane::agent
