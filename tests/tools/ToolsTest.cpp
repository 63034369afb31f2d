// The launcher, the reference service and the command-line client driven as
// processes, the way the demo and an integrator use them. Each test runs in
// its own private /dev/socket, so the launcher binds the real path there.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "OemJsonUtils.h"
#include "Processes.h"
#include "Wire.h"

namespace talvoem::test {
namespace {

using OemJsonUtils::QueryPolicy::Operate;
using Args = std::vector<std::string>;

const std::string kLauncher = TALVOEM_LAUNCHER;
const std::string kService = TALVOEMD;
const std::string kCtl = TALVOEMCTL;

const std::vector<Operate> kPolicy = {
    {"camera", {{"capture", {{"hdr", true}, {"night_mode", false}}}, {"stream", {{"uvc", true}}}}},
    {"network", {{"wifi", {{"hotspot", true}}}}},
};

std::string documentText(const std::vector<Operate>& ops) {
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(ops, text);
    return text;
}

std::string envelopeText(int32_t code, const std::string& msg, const std::string& data) {
    std::string text;
    OemJsonUtils::toJson(OemJsonUtils::Resp{code, msg, data}, text);
    return text;
}

std::string queryRequest(const std::string& data = "") {
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(OemJsonUtils::QueryPolicy::Req{"queryPolicy", 0, data}, text);
    return text;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

Args ctl(Args args) {
    args.insert(args.begin(), kCtl);
    return args;
}

// talvoemd on a policy file in a scratch directory, under the launcher.
class ServiceTest : public testing::Test {
protected:
    void SetUp() override {
        dir_.replace("policy.json", documentText(kPolicy));
        service_.reset(new Child({kLauncher, "--", kService, policyPath()},
                                 dir_.path("service.out"), dir_.path("service.err")));
        ASSERT_TRUE(waitUntil([] { return !roundTrip(queryRequest()).empty(); })) << serviceLog();
    }

    std::string policyPath() const { return dir_.path("policy.json"); }
    std::string serviceLog() const { return readFile(dir_.path("service.err")); }
    size_t logged(const std::string& text) const {
        const std::string log = serviceLog();
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++n;
        }
        return n;
    }
    std::string fullAnswer(const std::vector<Operate>& ops) const {
        return envelopeText(0, "success", documentText(ops));
    }

    ScratchDir dir_;
    std::unique_ptr<Child> service_;
};

TEST(LauncherTest, HandsOverTheBoundSocketAndLeavesTheCallerAlone) {
    const std::string probe =
        "stat -c %a:%F /dev/socket/talvoem; readlink /proc/self/fd/$ANDROID_SOCKET_talvoem";
    for (bool privateDir : {false, true}) {
        SCOPED_TRACE(privateDir ? "--namespace" : "in place");
        unlink("/dev/socket/talvoem");
        Args args = {kLauncher, "--", "/bin/sh", "-c", probe};
        if (privateDir) {
            args.insert(args.begin() + 1, "--namespace");
        }
        Outcome ran = run(args);
        EXPECT_EQ(0, ran.status) << ran.err;
        EXPECT_EQ(0u, ran.out.rfind("660:socket\nsocket:[", 0)) << ran.out;
        struct stat st;
        EXPECT_EQ(privateDir, stat("/dev/socket/talvoem", &st) != 0);
    }
}

TEST(LauncherTest, RefusesBadUsageAndReportsACommandThatDoesNotRun) {
    struct Row {
        Args args;
        int status;
        std::string err;
    } rows[] = {
        {{}, 2, "usage: talvoem-launcher"},
        {{"--frob", "true"}, 2, "talvoem-launcher: unknown option --frob\n"},
        {{"--", "/nonexistent"}, 1, "talvoem-launcher: /nonexistent: No such file or directory\n"},
    };
    for (Row& row : rows) {
        row.args.insert(row.args.begin(), kLauncher);
        Outcome ran = run(row.args);
        EXPECT_EQ(row.status, ran.status) << row.args.back();
        EXPECT_EQ(0u, ran.err.rfind(row.err, 0)) << ran.err;
    }
    EXPECT_EQ(0, run({kLauncher, "--help"}).status);
}

TEST(ServiceStartTest, RefusesAPolicyFileThatDoesNotLoad) {
    ScratchDir dir;
    struct Row {
        const char* content;  // null: no file at all
        std::string why;
    } rows[] = {
        {nullptr, "cannot open the file"},
        {"not json", "not a policy document"},
        {"{\"name\": \"camera\"}", "not a policy document"},
        {"[{\"name\": \"camera\", \"subsyss\": 42}]", "not a policy document"},
    };
    for (const Row& row : rows) {
        const std::string path = dir.path("policy.json");
        std::remove(path.c_str());
        if (row.content != nullptr) {
            dir.replace("policy.json", row.content);
        }
        Outcome ran = run({kService, path});
        EXPECT_EQ(1, ran.status) << ran.err;
        const std::string reason = "talvoemd: cannot load " + path + ": " + row.why + "\n";
        EXPECT_TRUE(endsWith(ran.err, reason)) << ran.err;
    }
    EXPECT_EQ(2, run({kService}).status);
}

TEST_F(ServiceTest, AnswersTheWholeDocumentOrTheSelectedPart) {
    const std::string noMatch = envelopeText(1, "No policy matches the selector.", "");
    struct Row {
        Args selector;
        int status;
        std::string answer;
    } rows[] = {
        {{}, 0, fullAnswer(kPolicy)},
        {{"--op", "network"}, 0, fullAnswer({kPolicy[1]})},
        {{"--op", "camera", "--subsys", "stream"},
         0,
         fullAnswer({{"camera", {{"stream", {{"uvc", true}}}}}})},
        {{"--func", "night_mode"},
         0,
         fullAnswer({{"camera", {{"capture", {{"night_mode", false}}}}}})},
        {{"--subsys", "wifi", "--func", "hotspot"}, 0, fullAnswer({kPolicy[1]})},
        {{"--type", "7"}, 0, fullAnswer(kPolicy)},
        {{"--op", "radio"}, 1, noMatch},
        {{"--op", "camera", "--func", "hotspot"}, 1, noMatch},
    };
    for (const Row& row : rows) {
        Args args = {"query", "--json"};
        args.insert(args.end(), row.selector.begin(), row.selector.end());
        Outcome ran = run(ctl(args));
        EXPECT_EQ(row.status, ran.status) << ran.err;
        EXPECT_EQ(row.answer, ran.out);
        if (row.status != 0) {
            EXPECT_EQ("talvoemctl: the service answered code 1: No policy matches the selector.\n",
                      ran.err);
        }
    }
    EXPECT_EQ(envelopeText(2, "The query data is not a selector.", ""),
              roundTrip(queryRequest("not a selector")));
}

TEST_F(ServiceTest, PrintsTheAnswerAsATree) {
    Outcome ran = run(ctl({"query", "--op", "network"}));
    EXPECT_EQ(0, ran.status) << ran.err;
    EXPECT_EQ("network\n  wifi\n    hotspot" + std::string(18, ' ') + "enabled\n", ran.out);
}

TEST_F(ServiceTest, KeepsTheDocumentOnABadEditAndNotifiesAWatcherOfAGoodOne) {
    Child watcher(ctl({"watch", "--count", "1", "--timeout", "60"}), dir_.path("watch.out"),
                  dir_.path("watch.err"));
    auto watched = [&] { return readFile(dir_.path("watch.out")); };
    ASSERT_TRUE(waitUntil([&] { return watched() == "watching for policy changes\n"; }));

    dir_.replace("policy.json", "[{\"name\": \"camera\", \"subsyss\": 42}]");
    ASSERT_TRUE(waitUntil([&] { return logged("keeping the previous policy") == 1; }));
    EXPECT_EQ(fullAnswer(kPolicy), roundTrip(queryRequest()));
    // The bad edit must reach nobody: give a stray notification time to land.
    EXPECT_FALSE(waitUntil([&] { return !watcher.running(); }, std::chrono::seconds(1)));

    const std::vector<Operate> edited = {kPolicy[1]};
    dir_.replace("policy.json", documentText(edited));
    EXPECT_EQ(0, watcher.wait()) << readFile(dir_.path("watch.err"));
    EXPECT_NE(std::string::npos, watched().find("] policy changed (type 1)\n")) << watched();
    EXPECT_EQ(fullAnswer(edited), roundTrip(queryRequest()));
}

TEST_F(ServiceTest, ConcurrentQueriesSeeOneWholeDocumentOrTheOther) {
    const std::vector<Operate> other = {kPolicy[1], kPolicy[0]};
    std::atomic<bool> stop{false};
    std::atomic<int> answers{0}, torn{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back([&] {
            while (!stop) {
                std::string answer = roundTrip(queryRequest());
                torn += answer != fullAnswer(kPolicy) && answer != fullAnswer(other);
                ++answers;
            }
        });
    }
    for (size_t swap = 1; swap <= 10; ++swap) {
        dir_.replace("policy.json", documentText(swap % 2 ? other : kPolicy));
        EXPECT_TRUE(waitUntil([&] { return logged("policy reloaded") == swap; }));
    }
    stop = true;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_GT(answers, 10);
    EXPECT_EQ(0, torn);
}

TEST_F(ServiceTest, StopsCleanlyOnSigtermAndAWatcherReportsTheLoss) {
    Child watcher(ctl({"watch"}), dir_.path("watch.out"), dir_.path("watch.err"));
    ASSERT_TRUE(waitUntil([&] { return !readFile(dir_.path("watch.out")).empty(); }));
    service_->signal(SIGTERM);
    EXPECT_EQ(0, service_->wait()) << serviceLog();
    EXPECT_EQ(1, watcher.wait());
    EXPECT_NE(std::string::npos, readFile(dir_.path("watch.out")).find("] service lost\n"));
}

TEST(CtlTest, ExitStatusesForNoServiceBadUsageAndHelp) {
    struct Row {
        Args args;
        int status;
        std::string start;  // of stderr, or of stdout for status 0
    } rows[] = {
        {{"query"}, 1, "talvoemctl: no service answers on /dev/socket/talvoem\n"},
        {{"watch"}, 1, "talvoemctl: cannot open a policy-callback channel"},
        {{}, 2, "talvoemctl: missing command\n"},
        {{"frob"}, 2, "talvoemctl: unknown command frob\n"},
        {{"query", "--type", "x"}, 2, "talvoemctl: --type takes a number from 0 to 65535\n"},
        {{"query", "--type", "65536"}, 2, "talvoemctl: --type takes a number from 0 to 65535\n"},
        {{"query", "--bogus"}, 2, "talvoemctl: unexpected argument --bogus\n"},
        {{"query", "--op"}, 2, "talvoemctl: --op needs a value\n"},
        {{"watch", "--json"}, 2, "talvoemctl: unexpected argument --json\n"},
        {{"watch", "--count", "-1"}, 2, "talvoemctl: --count takes a positive number\n"},
        {{"--help"}, 0, "usage: talvoemctl query|watch"},
        {{"query", "--help"}, 0, "usage: talvoemctl query"},
        {{"watch", "--help"}, 0, "usage: talvoemctl watch"},
    };
    for (const Row& row : rows) {
        Outcome ran = run(ctl(row.args));
        EXPECT_EQ(row.status, ran.status) << ran.err;
        EXPECT_EQ(0u, (row.status == 0 ? ran.out : ran.err).rfind(row.start, 0))
            << ran.out << ran.err;
    }
}

}  // namespace
}  // namespace talvoem::test
