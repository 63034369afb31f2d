// The launcher, talvoemd and talvoemctl run as programs, for what scripts/demo does not show.
// Scratch files live in the test's private tmpfs on /dev/socket, which goes with its namespace.
#include <gtest/gtest.h>
#include <poll.h>
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

TEST(TalvoemdTest, RefusesACommandLineOrAPolicyFileItCannotServe) {
    const std::string load = "talvoemd: cannot load " + kPolicyFile + ": ", deep(1100, '[');
    // talvoemd's argument (the policy file when empty), the file's content (null: no file),
    // exit status, stdout and stderr; run without a control socket.
    const std::tuple<std::string, const char*, int, std::string, std::string> rows[] = {
        {"", nullptr, 1, "", load + "cannot open the file\n"},
        {"", "[{\"subsyss\": 42}]", 1, "", load + "not a policy document\n"},
        {"/dev/zero", nullptr, 1, "",
         "talvoemd: cannot load /dev/zero: the file is larger than the 4194304-byte limit\n"},
        {"", "[{\"name\":\"a\"}] trailing", 1, "",
         load + "line 1, column 16: bytes after the document\n"},
        {"", "[\n {\"name\" \"a\"}]", 1, "",
         load + "line 2, column 10: Missing ':' after object member name\n"},
        {"", deep.c_str(), 1, "", load + "line 1, column 65: nested deeper than 64 levels\n"},
        {"", "[{\"name\":\"a\",\"subsyss\":[{\"name\":\"s\"},{\"name\":\"s\"}]}]", 1, "",
         load + "subsystem \"s\" appears twice in operation \"a\"\n"},
        {"", "[] // no operations yet", 1, "",
         "talvoemd: no control socket \"talvoem\" was handed over (ANDROID_SOCKET_talvoem is "
         "unset); run it under talvoem-launcher, or from init with a \"socket talvoem seqpacket\" "
         "line\n"},
        {"--version", nullptr, 0, "talvoemd " TALVOEM_VERSION "\n", ""},
        {"--verbose", nullptr, 2, "", "talvoemd: unknown option --verbose; see talvoemd --help\n"},
        {"--query-uid 0,,2000", nullptr, 2, "",
         "talvoemd: --query-uid takes uids as comma-separated numbers; see talvoemd --help\n"},
    };
    for (const auto& [arg, content, status, out, err] : rows) {
        std::remove(kPolicyFile.c_str());
        if (content != nullptr) {
            edit(content);
        }
        Child ran(kService + " " + (arg.empty() ? kPolicyFile : arg));
        EXPECT_EQ(status, ran.wait()) << err;
        EXPECT_EQ(out, ran.out());
        EXPECT_EQ(err, ran.out(".err"));
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

TEST(TalvoemdTest, AWatcherHearsOfEachNewDocumentOnlyAndOfTheServiceLost) {
    auto service = startService(kPolicy);
    Child watch(kCtl + " watch");
    ASSERT_TRUE(waitUntil([&] { return !watch.out().empty(); }, kLong));
    auto logged = [&](const char* line) { return countOf(service->out(".err"), line); };
    edit("[{\"subsyss\": 42}]", false);
    ASSERT_TRUE(waitUntil([&] { return logged("keeping the") == 1; }));
    const std::vector<Operate> edits[] = {{kPolicy[1]}, {kPolicy[0]}, {kPolicy[1]}};
    for (size_t n = 1; n <= 3; ++n) {
        if (n == 3) {
            // The same document written again, then the file deleted: nothing to report, and the
            // document is kept until the file comes back.
            edit(doc(edits[1]), false);
            ASSERT_TRUE(waitUntil([&] { return logged("rewritten with no change") == 1; }, kLong));
            std::remove(kPolicyFile.c_str());
            ASSERT_TRUE(waitUntil([&] { return logged("deleted or renamed away") == 1; }, kLong));
            EXPECT_EQ(answer(edits[1]), roundTrip(queryText(0, "")));
        }
        edit(doc(edits[n - 1]), n != 2);
        EXPECT_TRUE(waitUntil([&] { return countOf(watch.out(), "policy changed") == n; }, kLong));
        EXPECT_EQ(answer(edits[n - 1]), roundTrip(queryText(0, "")));
    }
    kill(service->pid, SIGTERM);
    EXPECT_EQ(7, watch.wait());
    EXPECT_EQ("talvoemctl: the service was lost after 3 notifications\n", watch.out(".err"));
}

// A watcher that registers and never reads again fills its socket after a few hundred
// notifications; reloads and queries go on regardless, and once it reads it hears of changes.
TEST(TalvoemdTest, AWatcherThatStopsReadingHoldsUpNoReloadAndNoQuery) {
    auto service = startService(kPolicy);
    const int frozen = registerRaw();
    ASSERT_GE(frozen, 0);
    const std::vector<Operate> last = {{"edit-500", {}}};
    for (size_t i = 1; i <= 500; ++i) {
        edit(doc({{"edit-" + std::to_string(i), {}}}));
        ASSERT_TRUE(
            waitUntil([&] { return countOf(service->out(".err"), "policy reloaded") == i; }, kLong))
            << "edit " << i;
    }
    EXPECT_EQ(answer(last), roundTrip(queryText(0, "")));
    while (recvRaw(frozen, std::chrono::seconds(2)).status == Packet::kData) {
    }
    edit(doc(kPolicy));
    EXPECT_EQ("{\"cmd\":1,\"type\":1}\n", recvRaw(frozen, kLong).bytes);
    closeRaw(frozen);
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

TEST(TalvoemdTest, AnAnswerAboveWhatTheConnectionCanSendGetsCode3) {
#if !defined(TALVOEM_SNDBUF_CAP)
    GTEST_SKIP() << "preloading needs a plain, native build";
#else
    // A default kernel's net.core.wmem_max grants at most 425,984 bytes of
    // send buffer: 425,952 bytes a packet.
    const std::vector<Operate> policy = bigPolicy(1200);
    ASSERT_GT(answer(policy).size(), 425952u);
    ASSERT_LT(answer(policy).size(), kReceiveLimit);
    edit(doc(policy));
    Child service("env LD_PRELOAD=" TALVOEM_SNDBUF_CAP " TALVOEM_TEST_WMEM_MAX=212992 " +
                  kLauncher + " -- " + kService + " " + kPolicyFile);
    ASSERT_TRUE(waitUntil([] { return !roundTrip(queryText(0, "")).empty(); }, kLong / 3));
    Child whole(kCtl + " query --json");
    EXPECT_EQ(1, whole.wait()) << whole.out(".err");
    EXPECT_EQ(envelopeText(3,
                           "The answer exceeds the 425952 bytes a client can receive; narrow "
                           "the selector."),
              whole.out());
#endif
}

// On a socket open to all, an app uid is denied queries and the channel, said plainly by
// talvoemctl, while root then takes the channel at once; past its cap the app's next connection
// is closed while another uid is answered. Each kind of refusal is logged once, with the uid.
TEST(TalvoemdTest, ServesQueriesAndTheChannelByUidAndCapsEachUidsConnections) {
    edit(doc(kPolicy));
    Child service(kLauncher + " --mode 0666 -- " + kService +
                  " --query-uid 0,10001 --watch-uid 0 --max-connections-per-uid 2 " + kPolicyFile);
    ASSERT_TRUE(waitUntil([] { return !roundTrip(queryText(0, "")).empty(); }, kLong));
    auto ask = [](uid_t uid) {
        const int fd = connectAs(uid);
        std::string reply = sendRaw(fd, queryText(0, "")) ? recvRaw(fd).bytes : "";
        close(fd);
        return reply;
    };
    const std::string denied = envelopeText(13, "permission denied");
    EXPECT_EQ(answer(kPolicy), ask(10001));
    EXPECT_EQ(denied, ask(2000));
    const std::string asApp = "setpriv --reuid 2000 --regid 2000 --clear-groups " + kCtl;
    Child query(asApp + " query --verbose"), watch(asApp + " watch");
    const std::string pid = std::to_string(query.pid);
    EXPECT_EQ(1, query.wait());
    EXPECT_EQ(1u, countOf(query.out(".err"),
                          "talvoemctl: the service sees uid 2000 (gid 2000, pid " + pid +
                              "); it does not answer this uid's "
                              "queries and does not let it open the channel\n"));
    EXPECT_EQ(1u, countOf(query.out(".err"),
                          "talvoemctl: permission denied: the service answers no queries from "
                          "uid 2000\n"));
    EXPECT_EQ(1, watch.wait());
    EXPECT_EQ("talvoemctl: permission denied: the service lets no channel open from uid 2000\n",
              watch.out(".err"));
    const int channel = registerRaw();
    EXPECT_GE(channel, 0) << "root refused after the app";

    const int held[] = {connectAs(2000), connectAs(2000)}, third = connectAs(2000);
    EXPECT_EQ(Packet::kClosed, recvRaw(third).status);
    EXPECT_EQ(answer(kPolicy), ask(10001));
    for (int fd : {held[0], held[1], third, channel}) {
        close(fd);
    }
    const std::string log = service.out(".err");
    for (const char* line :
         {"refused a query from uid 2000 (not in --query-uid)", "a query answered after 2 refused",
          "refused the channel to uid 2000 (not in --watch-uid)",
          "a channel opened after 1 refused",
          "Server refuses connections: uid 2000 already holds 2 connections"}) {
        EXPECT_EQ(1u, countOf(log, line)) << line << " in\n" << log;
    }
}

// A listening socket that never accepts: connections wait in its backlog.
bool connectionWaiting(int listener) {
    pollfd pending = {listener, POLLIN, 0};
    return poll(&pending, 1, 0) == 1;
}

TEST(CtlTest, GivesEachFailureItsOwnExitStatusAndEndsAtEachDeadlineAndSignal) {
    const size_t frame = envelopeText(0, "").size();
    const std::string whole = envelopeText(0, std::string(kReceiveLimit - frame, 'x'));
    const std::string cut = envelopeText(0, std::string(kReceiveLimit - frame + 1, 'x'));
    const std::string noService = "talvoemctl: no service is listening on /dev/socket/talvoem\n";
    // The service's answer (null: no service at all; "refuse": it refuses channels; "silent": it
    // never accepts), talvoemctl's arguments, the signal sent once it waits (on the service, or
    // with a line out), exit status, stdout and stderr.
    const std::tuple<const char*, std::string, int, int, std::string, std::string> rows[] = {
        {nullptr, "query", 0, 3, "", noService},
        {nullptr, "watch", 0, 3, "", noService},
        {"", "query", 0, 4, "",
         "talvoemctl: the service closed the connection without an answer\n"},
        {whole.c_str(), "query --json", 0, 0, whole, ""},
        {cut.c_str(), "query", 0, 5, "",
         "talvoemctl: the answer was longer than 524288 bytes and arrived cut\n"},
        {"not json", "query", 0, 6, "", "talvoemctl: the answer (8 bytes) is not an envelope\n"},
        {"{\"code\":7,\"msg\":\"no\"}", "query --json", 0, 1, "{\"code\":7,\"msg\":\"no\"}\n",
         "talvoemctl: the service answered code 7: no\n"},
        {"refuse", "watch", 0, 1, "",
         "talvoemctl: the service refused the channel (code -1): the service already serves a "
         "watcher, one at a time, or refused it\n"},
        {"", "watch --count 1 --timeout 1", 0, 8, "watching for policy changes\n",
         "talvoemctl: timed out after 0 of 1 notifications\n"},
        {"", "watch", SIGINT, 0, "watching for policy changes\n", ""},
        {"silent", "query --timeout 1", 0, 8, "", "talvoemctl: no answer within 1 s\n"},
        {"silent", "query", SIGINT, 130, "", ""},
        {"silent", "watch", 0, 8, "",
         "talvoemctl: the service did not answer the channel request within 5 s\n"},
        {"silent", "watch --count 2", SIGTERM, 143, "", ""},
        {nullptr, "watch --count 0", 0, 2, "",
         "talvoemctl: --count takes a positive number; see talvoemctl watch --help\n"},
        {nullptr, "query --op", 0, 2, "",
         "talvoemctl: --op needs a value; see talvoemctl query --help\n"},
        {nullptr, "frob", 0, 2, "", "talvoemctl: unknown command frob; see talvoemctl --help\n"},
        {nullptr, "--version", 0, 0, "talvoemctl " TALVOEM_VERSION "\n", ""},
    };
    for (const auto& [reply, args, signal, status, out, err] : rows) {
        const std::string mode = reply != nullptr ? reply : "";
        auto& service = immortal<TestService>(&immortal<ForwardingFactory>());
        service.answer = mode;
        service.refuseCallback = mode == "refuse";
        auto runner =
            reply && mode != "silent" ? std::make_unique<ServiceRunner>(service) : nullptr;
        const int silent = mode == "silent" ? bindPath() : -1;
        ASSERT_TRUE(silent < 0 || listen(silent, 4) == 0);
        Child ran(kCtl + " " + args);
        if (signal != 0) {
            ASSERT_TRUE(waitUntil(
                [&] { return !ran.out().empty() || (silent >= 0 && connectionWaiting(silent)); },
                kLong));
            kill(ran.pid, signal);
        }
        EXPECT_EQ(status, ran.wait()) << args;
        EXPECT_TRUE(ran.out() == out) << ran.out().size() << " bytes out for " << args;
        EXPECT_EQ(err, ran.out(".err")) << args;
        if (silent >= 0) {
            close(silent);
        }
    }
}

// The service answers the dispose with a burst of notifications before its exit message: the
// watch prints exactly its N and ends cleanly (a sanitizer's report would show on stderr).
TEST(CtlTest, WatchPrintsExactlyItsCountThoughABurstComesDuringTheDispose) {
    const int listener = bindPath(SOCK_SEQPACKET | SOCK_NONBLOCK);
    ASSERT_EQ(0, listen(listener, 1));
    // The watch may end, after its bounded wait for the dispose, while the
    // library's receive thread still hands out the burst; a notify thread it
    // has made but not yet detached is then counted by ThreadSanitizer as
    // leaked. Races are still reported.
    Child watch("env TSAN_OPTIONS=\"$TSAN_OPTIONS:report_thread_leaks=0\" " + kCtl +
                " watch --count 1");
    int fd = -1;
    ASSERT_TRUE(waitUntil([&] { return (fd = accept(listener, nullptr, nullptr)) >= 0; }, kLong));
    EXPECT_EQ(kRegister, recvRaw(fd).bytes);
    ASSERT_TRUE(sendRaw(fd, kSuccess) && sendRaw(fd, notifyText(1, "")));
    EXPECT_EQ(kDispose, recvRaw(fd, kLong).bytes);
    // Sent as fast as the watch takes them; it may end before all are sent.
    for (int i = 0; i < 2000 && sendRaw(fd, notifyText(1, "")); ++i) {
    }
    sendRaw(fd, kExit);
    EXPECT_EQ(0, watch.wait());
    EXPECT_EQ(1u, countOf(watch.out(), "policy changed")) << watch.out().size() << " bytes out";
    EXPECT_EQ("", watch.out(".err"));
    close(fd);
    close(listener);
}

}  // namespace
}  // namespace talvoem::test
