// The launcher, talvoemd and talvoemctl run as programs, for what scripts/demo does not show.
// Scratch files live in the test's private tmpfs on /dev/socket, which goes with its namespace.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "OemJsonUtils.h"
#include "Service.h"
#include "Wire.h"

extern char** environ;

namespace talvoem::test {
namespace {

using OemJsonUtils::QueryPolicy::Operate;
const std::string kLauncher = TALVOEM_TOOLS "talvoem-launcher", kService = TALVOEM_TOOLS "talvoemd",
                  kCtl = TALVOEM_TOOLS "talvoemctl";
const std::string kPolicyFile = "/dev/socket/policy.json";
const std::vector<Operate> kPolicy = {
    {"camera", {{"capture", {{"hdr", true}, {"night_mode", false}}}, {"stream", {{"uvc", true}}}}},
    {"network", {{"wifi", {{"hotspot", true}}}}},
};
constexpr std::chrono::seconds kLong{60};

size_t countOf(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at, ++n) {
    }
    return n;
}

std::string doc(const std::vector<Operate>& ops) {
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(ops, text);
    return text;
}

std::string answer(const std::vector<Operate>& ops) {
    std::string text;
    OemJsonUtils::toJson(OemJsonUtils::Resp{0, "success", doc(ops)}, text);
    return text;
}

// Writes in place, or as editors save: a new file renamed over the old one.
void edit(const std::string& text, bool rename = true) {
    std::ofstream(kPolicyFile + (rename ? ".new" : "")) << text;
    ASSERT_TRUE(!rename || std::rename((kPolicyFile + ".new").c_str(), kPolicyFile.c_str()) == 0);
}

// `n` operations of 8 functions each, about 330 bytes of document apiece.
std::vector<Operate> bigPolicy(int n) {
    std::vector<Operate> ops(n, {"", {{"subsystem", {}}}});
    for (int i = 0; i < n * 8; ++i) {
        ops[i / 8].name = "operation-" + std::to_string(i / 8);
        ops[i / 8].subsyss[0].funcs.push_back({"func-" + std::to_string(i % 8), i % 2 == 0});
    }
    return ops;
}

// A command run by /bin/sh, its stdout and stderr in files; killed if the test leaves it running.
struct Child {
    explicit Child(const std::string& command) {
        static int made = 0;
        base = "/dev/socket/child" + std::to_string(++made);
        std::string line = "exec " + command + " >" + base + ".out 2>" + base + ".err";
        char* argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), line.data(),
                        nullptr};
        pid = posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) == 0 ? pid : -1;
    }
    ~Child() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) {
            waitpid(pid, nullptr, 0);
        }
    }
    // The exit status; -1 for a signal or past a generous deadline (the destructor then kills it).
    int wait() {
        int status = -1;
        if (waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, kLong)) {
            pid = -1;
        }
        return pid < 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string out(const char* suffix = ".out") const {
        std::ifstream file(base + suffix);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string base;
    pid_t pid = -1;
};

// talvoemd under the launcher on kPolicyFile, once it answers.
std::unique_ptr<Child> startService(const std::vector<Operate>& policy) {
    edit(doc(policy));
    auto service = std::make_unique<Child>(kLauncher + " -- " + kService + " " + kPolicyFile);
    EXPECT_TRUE(waitUntil([] { return !roundTrip(queryText(0, "")).empty(); }, kLong));
    return service;
}

TEST(LauncherTest, BindsTheSocketWithMode0660InAPrivateNamespace) {
    unlink(kServicePath);  // one an earlier test in this process may have left
    Child ran(kLauncher + " --namespace -- stat -c %a:%F " + kServicePath);
    EXPECT_EQ(0, ran.wait()) << ran.out(".err");
    EXPECT_EQ("660:socket\n", ran.out());
    EXPECT_NE(0, access(kServicePath, F_OK)) << "the caller's /dev/socket was touched";
}

TEST(TalvoemdTest, RefusesAPolicyFileThatDoesNotLoad) {
    const std::pair<const char*, std::string> rows[] = {
        {nullptr, "cannot open the file"}, {"[{\"subsyss\": 42}]", "not a policy document"}};
    for (const auto& [content, why] : rows) {
        std::remove(kPolicyFile.c_str());
        if (content != nullptr) {
            edit(content);
        }
        Child ran(kService + " " + kPolicyFile);
        EXPECT_EQ(1, ran.wait());
        EXPECT_EQ("talvoemd: cannot load " + kPolicyFile + ": " + why + "\n", ran.out(".err"));
    }
}

TEST(TalvoemdTest, SelectorsNarrowTheAnswer) {
    auto service = startService(kPolicy);
    const std::string noMatch = envelopeText(1, "No policy matches the selector.");
    const std::pair<std::string, std::string> rows[] = {
        {"--func night_mode", answer({{"camera", {{"capture", {{"night_mode", false}}}}}})},
        {"--op camera --subsys stream", answer({{"camera", {{"stream", {{"uvc", true}}}}}})},
        {"--subsys wifi --func hotspot", answer({kPolicy[1]})},
        {"--op camera --func hotspot", noMatch},
    };
    for (const auto& [selector, expected] : rows) {
        Child ran(kCtl + " query --json " + selector);
        EXPECT_EQ(expected == noMatch ? 1 : 0, ran.wait()) << selector;
        EXPECT_EQ(expected, ran.out()) << selector;
    }
    EXPECT_EQ(envelopeText(2, "The query data is not a selector."), roundTrip(queryText(0, "x")));
}

TEST(TalvoemdTest, AWatcherHearsOfRenamesAndInPlaceWritesNotOfABadEditAndOfTheServiceLost) {
    auto service = startService(kPolicy);
    Child watch(kCtl + " watch");
    ASSERT_TRUE(waitUntil([&] { return !watch.out().empty(); }, kLong));
    edit("[{\"subsyss\": 42}]", false);
    ASSERT_TRUE(waitUntil([&] { return countOf(service->out(".err"), "keeping the") == 1; }));
    const std::vector<Operate> edits[] = {{kPolicy[1]}, {kPolicy[0]}};
    for (size_t n = 1; n <= 2; ++n) {
        edit(doc(edits[n - 1]), n == 1);
        EXPECT_TRUE(waitUntil([&] { return countOf(watch.out(), "policy changed") == n; }, kLong));
        EXPECT_EQ(answer(edits[n - 1]), roundTrip(queryText(0, "")));
    }
    kill(service->pid, SIGTERM);
    EXPECT_EQ(7, watch.wait());
    EXPECT_EQ("talvoemctl: the service was lost after 2 notifications\n", watch.out(".err"));
}

TEST(TalvoemdTest, AnswersLongerThanTheReceiveLimitGetCode3AndOthersArriveWhole) {
    const std::vector<Operate> tooLong = bigPolicy(2000), fits = bigPolicy(1000);
    auto service = startService(tooLong);
    const std::string log = service->out(".err");
    const size_t warning = log.find(" the whole policy in " + kPolicyFile + " makes a ");
    EXPECT_EQ("talvoemd W", log.substr(log.rfind('\n', warning) + 1, 10)) << log;
    const std::string why =
        "The answer exceeds the 524288 bytes a client can receive; narrow the selector.";
    Child whole(kCtl + " query --json"), part(kCtl + " query --json --op operation-7");
    EXPECT_EQ(1, whole.wait());
    EXPECT_EQ(envelopeText(3, why), whole.out());
    EXPECT_EQ("talvoemctl: the service answered code 3: " + why + "\n", whole.out(".err"));
    EXPECT_EQ(0, part.wait()) << part.out(".err");
    EXPECT_EQ(answer({tooLong[7]}), part.out());

    edit(doc(fits));  // about 330 KB, more than a default socket buffer takes
    ASSERT_TRUE(
        waitUntil([&] { return countOf(service->out(".err"), "policy reloaded") == 1; }, kLong));
    Child json(kCtl + " query --json"), tree(kCtl + " query");
    EXPECT_EQ(0, json.wait()) << json.out(".err");
    EXPECT_TRUE(json.out() == answer(fits)) << json.out().size() << " bytes";
    EXPECT_EQ(0, tree.wait()) << tree.out(".err");
    EXPECT_EQ(1000u * (1 + 1 + 8), countOf(tree.out(), "\n"));
}

TEST(CtlTest, GivesEachFailureItsOwnExitStatus) {
    const size_t frame = envelopeText(0, "").size();
    const std::string whole = envelopeText(0, std::string(kReceiveLimit - frame, 'x'));
    const std::string cut = envelopeText(0, std::string(kReceiveLimit - frame + 1, 'x'));
    // The service's answer (null: no service at all; "refuse": it refuses channels), talvoemctl's
    // arguments, exit status, stdout and stderr.
    const std::tuple<const char*, std::string, int, std::string, std::string> rows[] = {
        {nullptr, "query", 3, "", "talvoemctl: no service is listening on /dev/socket/talvoem\n"},
        {nullptr, "watch", 3, "", "talvoemctl: no service is listening on /dev/socket/talvoem\n"},
        {"", "query", 4, "", "talvoemctl: the service closed the connection without an answer\n"},
        {whole.c_str(), "query --json", 0, whole, ""},
        {cut.c_str(), "query", 5, "",
         "talvoemctl: the answer was cut at 524288 of its 524289 bytes\n"},
        {"not json", "query", 6, "", "talvoemctl: the answer (8 bytes) is not an envelope\n"},
        {"refuse", "watch", 1, "", "talvoemctl: the service refused the channel (code -1)\n"},
        {"", "watch --count 1 --timeout 1", 8, "watching for policy changes\n",
         "talvoemctl: timed out after 0 of 1 notifications\n"},
    };
    for (const auto& [reply, args, status, out, err] : rows) {
        auto& service = immortal<TestService>(&immortal<ForwardingFactory>());
        service.answer = reply != nullptr ? reply : "";
        service.refuseCallback = service.answer == "refuse";
        auto runner = reply ? std::make_unique<ServiceRunner>(service) : nullptr;
        Child ran(kCtl + " " + args);
        EXPECT_EQ(status, ran.wait()) << err;
        EXPECT_TRUE(ran.out() == out) << ran.out().size() << " bytes out for " << err;
        EXPECT_EQ(err, ran.out(".err"));
    }
}

}  // namespace
}  // namespace talvoem::test
