// talvoem-soak: a bounded soak of the reference service, for a launcher's
// private namespace (scripts/soak runs `talvoem-launcher --namespace --
// talvoem-soak SECONDS TALVOEMD POLICY`). It starts talvoemd on a scratch copy
// of POLICY with the control socket handed over, then for SECONDS drives it on
// the local socket with:
//  - query threads: paced queries on fresh connections (whole document, a
//    selector, one matching nothing, data that is no selector); a query fails
//    when it gets no envelope within 5 s or not the code its data calls for;
//  - channel churn: a watcher opens a channel, holds it 2-6 s, disposes of it
//    and opens again, while an editor renames a new version of the policy
//    file over it (as an editor saves) every 250 ms;
//  - a hostile client: random bytes (each must get an envelope back),
//    connections closed at once or after half a request, and bursts of up to
//    50 idle connections held for 1-3 s, released and renewed. The idle
//    connections come from an app uid (2000, on a socket open to all), so
//    talvoemd's default cap of 32 connections a uid closes the rest while
//    every other client, all root, is served as before.
// Every few seconds it samples the service's RSS, threads and descriptors.
//
// Changes: the service may fold edits made while a report is pending into
// one notification, so an edit counts as notified when any notification
// reached the channel open around it (from observe() to the end of
// dispose()) after it was made. It is lost when none did although it was made
// while that channel was surely open (observe() had returned, dispose() had
// not begun) and at least 1 s before the close. Every other edit (no channel
// open, or too near its opening or close) is unwatched.
//
// Resources: samples of the first 10% of the run are warm-up; of the rest, a
// figure grows when the least value of the last third exceeds the least of
// the first third by more than its tolerance (least, because the idle
// connections come and go in bursts). Threads and descriptors must also come
// back to the idle service's figures within 10 s once the load stops.
// Exit status 1 when a figure grows, an edit is lost or anything failed.
#include <android/log.h>
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <deque>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "OemJsonUtils.h"
#include "SocketOemQueryClient.h"
#include "SocketTransport.h"
#include "TalvoemProtocol.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Seconds = std::chrono::duration<double>;
namespace protocol = talvoem::protocol;

constexpr int kQueryThreads = 3;
constexpr size_t kIdleBurst = 50;
constexpr auto kLossGrace = std::chrono::seconds(1);
// What a sample may catch in flight beside the idle service: a channel (two
// threads or descriptors) and the query and hostile connections.
constexpr long kCountTolerance = 8;

// Atomics only, so the library's late notify threads may count even while
// the process exits.
struct Counts {
    std::atomic<long> queries{0}, failed{0}, edits{0}, notes{0}, channels{0}, refused{0};
    std::atomic<long> serviceLost{0}, hostile{0}, unanswered{0}, cut{0}, idle{0};
} counts;

// Sleeps up to `ms`, never past `end`; false once the run is over.
bool pause(Clock::time_point end, milliseconds ms) {
    std::this_thread::sleep_until(std::min(end, Clock::now() + ms));
    return Clock::now() < end;
}

// Sends `packet` (NUL bytes included) on a fresh connection; the answer's
// envelope code, or INT_MIN when no envelope came back within 5 s.
int roundTrip(const std::string& packet) {
    const int fd = establishConnection();
    if (fd < 0) {
        return INT_MIN;
    }
    const timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    std::string answer;
    OemJsonUtils::Resp resp;
    const bool ok = send(fd, packet.data(), packet.size(), 0) == ssize_t(packet.size()) &&
                    recvMsg(fd, answer) > 0 && OemJsonUtils::fromJson(answer, resp) == 0;
    closeConnection(fd);
    return ok ? resp.code : INT_MIN;
}

std::string queryText(const std::string& data) {
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(
        OemJsonUtils::QueryPolicy::Req{protocol::kApiQueryPolicy, 0, data}, text);
    return text;
}

void queryLoop(Clock::time_point end, const std::string& opName, unsigned seed) {
    const std::pair<std::string, int> mix[] = {{queryText(""), 0},
                                               {queryText(R"({"op_name":")" + opName + R"("})"), 0},
                                               {queryText(R"({"op_name":"no such operation"})"), 1},
                                               {queryText("[1]"), 2}};
    std::mt19937 random(seed);
    while (pause(end, milliseconds(10))) {
        const auto& [text, code] = mix[random() % 4];
        ++counts.queries;
        counts.failed += roundTrip(text) != code;
    }
}

// One channel's record. Deliveries run on the library's detached notify
// threads, possibly after dispose() returns, so sessions live until the
// process ends. The watcher stamps the times around observe() and dispose();
// they are read once it has been joined.
struct Session : IOemPolicyCB {
    Clock::time_point opening, opened, closing, closed;
    std::mutex mutex;
    std::vector<Clock::time_point> notes;  // guarded by mutex

    void onPolicyChanged(uint16_t type, std::string*) override {
        counts.serviceLost += type == protocol::kTypeConnectionLost;
        if (type == 1) {
            ++counts.notes;
            std::lock_guard<std::mutex> lock(mutex);
            notes.push_back(Clock::now());
        }
    }
};

void watchLoop(Clock::time_point end, std::deque<Session>& sessions) {
    std::mt19937 random(7);
    SocketOemQueryClient client;
    do {
        Session& session = sessions.emplace_back();
        session.opening = Clock::now();
        if (client.observePolicyCallback(&session) != 0) {
            ++counts.refused;
            continue;
        }
        ++counts.channels;
        session.opened = Clock::now();
        pause(end, milliseconds(2000 + random() % 4000));
        session.closing = Clock::now();
        client.disposePolicyCallback();
        session.closed = Clock::now();
    } while (pause(end, milliseconds(100 + random() % 400)));
}

void editLoop(Clock::time_point end, const std::string& path,
              const std::vector<std::string>& versions, std::vector<Clock::time_point>& edits) {
    for (size_t n = 1; pause(end, milliseconds(250)); ++n) {
        std::ofstream(path + ".new") << versions[n % versions.size()];
        // Stamped before the rename, so its notification always comes later.
        const Clock::time_point made = Clock::now();
        if (rename((path + ".new").c_str(), path.c_str()) == 0) {
            edits.push_back(made);
            ++counts.edits;
        }
    }
}

void hostileLoop(Clock::time_point end) {
    std::mt19937 random(11);
    const std::string request = queryText("");
    while (pause(end, milliseconds(10))) {
        const unsigned kind = random() % 3;
        if (kind == 0) {
            std::string bytes(1 + random() % 4096, '\0');
            std::generate(bytes.begin(), bytes.end(), [&] { return char(random()); });
            ++counts.hostile;
            counts.unanswered += roundTrip(bytes) == INT_MIN;
            continue;
        }
        const int fd = internalEstablishConnection();
        if (fd >= 0 && kind == 2) {
            send(fd, request.data(), request.size() / 2, 0);
        }
        counts.cut += closeConnection(fd) == 0;
    }
}

// The raw system calls change the calling thread's credentials only (the
// libc wrappers would change every thread's), so this thread's connections
// carry the app uid and the rest of the driver stays root.
void becomeAppUid() {
    constexpr long kAppUid = 2000;
    syscall(SYS_setresgid, kAppUid, kAppUid, kAppUid);
    syscall(SYS_setresuid, kAppUid, kAppUid, kAppUid);
}

void idleLoop(Clock::time_point end) {
    becomeAppUid();
    std::mt19937 random(13);
    std::vector<int> held;
    do {
        for (int fd; held.size() < kIdleBurst && (fd = internalEstablishConnection()) >= 0;) {
            held.push_back(fd);
            ++counts.idle;
        }
        pause(end, milliseconds(1000 + random() % 2000));
        std::for_each(held.begin(), held.end(), closeConnection);
        held.clear();
    } while (pause(end, milliseconds(500 + random() % 1000)));
}

struct Sample {
    long rssKiB = 0, threads = 0, fds = 0;
};

Sample sample(pid_t pid) {
    Sample s;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string key; status >> key;) {
        if (key == "VmRSS:" || key == "Threads:") {
            status >> (key == "VmRSS:" ? s.rssKiB : s.threads);
        }
    }
    if (DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (dirent* entry = readdir(dir)) {
            s.fds += entry->d_name[0] != '.';
        }
        closedir(dir);
    }
    return s;
}

// Growth of `field` from the first to the last third of `load` (warm-up
// left out), by their least values; 0 when there are too few samples.
long growth(const std::vector<Sample>& load, long Sample::*field) {
    const size_t third = load.size() / 3;
    auto least = [&](size_t from) {
        long m = LONG_MAX;
        for (size_t i = from; i < from + third; ++i) {
            m = std::min(m, load[i].*field);
        }
        return m;
    };
    return third == 0 ? 0 : least(load.size() - third) - least(0);
}

// "flat" or "growing", with the growth; `left` is what stayed above the idle
// service once the load stopped, growth whatever the windows say.
std::string verdict(const char* name, long grown, long tolerance, long left, bool& failed,
                    const char* unit = "") {
    const bool growing = grown > tolerance || left > 0;
    failed = failed || growing;
    const long shown = left > 0 ? left : grown;
    std::ostringstream out;
    out << name << (growing ? " growing (" : " flat (") << (shown >= 0 ? "+" : "") << shown << unit
        << ")";
    return out.str();
}

// Starts talvoemd on `policy` with the launcher's control socket; keeps no
// copy of the socket, so the listening ends with the service.
pid_t startService(const char* talvoemd, const std::string& policy) {
    const char* control = getenv("ANDROID_SOCKET_talvoem");
    const pid_t pid = fork();
    if (pid == 0) {
        if (freopen("/dev/null", "w", stderr) != nullptr) {
            execl(talvoemd, talvoemd, policy.c_str(), static_cast<char*>(nullptr));
        }
        _exit(127);
    }
    if (control != nullptr) {
        close(atoi(control));
    }
    unsetenv("ANDROID_SOCKET_talvoem");
    return pid;
}

// Samples the service every 100 ms until `done(previous, latest)` or 10 s.
template <typename Done>
Sample awaitSample(pid_t service, Done done) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    Sample previous, latest = sample(service);
    do {
        std::this_thread::sleep_for(milliseconds(100));
        previous = std::exchange(latest, sample(service));
    } while (!done(previous, latest) && Clock::now() < deadline);
    return latest;
}

// The policy as given and with its first function switched.
std::vector<std::string> versionsOf(const char* path, std::string& firstOp) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    std::vector<OemJsonUtils::QueryPolicy::Operate> policy;
    if (OemJsonUtils::QueryPolicy::fromJson(text.str(), policy) != 0 || policy.empty() ||
        policy[0].subsyss.empty() || policy[0].subsyss[0].funcs.empty()) {
        return {};
    }
    firstOp = policy[0].name;
    policy[0].subsyss[0].funcs[0].enable = !policy[0].subsyss[0].funcs[0].enable;
    std::string other;
    OemJsonUtils::QueryPolicy::toJson(policy, other);
    return {text.str(), other};
}

// Samples the service every `every` until `end`, printing at most ~20 rows.
std::vector<Sample> sampleUntil(pid_t service, Clock::time_point end, Seconds every) {
    const Clock::time_point start = Clock::now();
    const size_t stride = std::max<size_t>(1, (size_t((end - start) / every) + 19) / 20);
    std::vector<Sample> samples;
    while (pause(end, std::chrono::duration_cast<milliseconds>(every))) {
        samples.push_back(sample(service));
        if (samples.size() % stride == 0) {
            const Sample& s = samples.back();
            printf("%8.0f %9ld %8ld %5ld %9ld %7ld %7ld %6ld\n",
                   Seconds(Clock::now() - start).count(), s.rssKiB, s.threads, s.fds,
                   counts.queries.load(), counts.failed.load(), counts.edits.load(),
                   counts.notes.load());
            fflush(stdout);
        }
    }
    return samples;
}

// Counts each edit notified or lost (see the top of this file); the rest are
// unwatched.
void tallyEdits(std::deque<Session>& sessions, const std::vector<Clock::time_point>& edits,
                long& notified, long& lost) {
    for (Session& session : sessions) {
        std::lock_guard<std::mutex> lock(session.mutex);
        for (Clock::time_point edit : edits) {
            if (edit < session.opening || edit >= session.closed) {
                continue;
            }
            if (std::any_of(session.notes.begin(), session.notes.end(),
                            [&](Clock::time_point note) { return note > edit; })) {
                ++notified;
            } else if (edit >= session.opened && edit + kLossGrace < session.closing) {
                ++lost;
            }
        }
    }
}

// Starts every load thread; they end by themselves at `end`.
std::vector<std::thread> startLoad(Clock::time_point end, const std::string& firstOp,
                                   const std::string& policy,
                                   const std::vector<std::string>& versions,
                                   std::deque<Session>& sessions,
                                   std::vector<Clock::time_point>& edits) {
    std::vector<std::thread> load;
    for (unsigned i = 0; i < kQueryThreads; ++i) {
        load.emplace_back(queryLoop, end, firstOp, i);
    }
    load.emplace_back(watchLoop, end, std::ref(sessions));
    load.emplace_back(editLoop, end, policy, std::cref(versions), std::ref(edits));
    load.emplace_back(hostileLoop, end);
    load.emplace_back(idleLoop, end);
    return load;
}

// Prints the counts and the summary line; true when anything failed.
bool report(Seconds duration, const std::vector<Sample>& samples, const Sample& idle,
            const Sample& settled, long notified, long lost, bool failed) {
    const long changes = counts.edits;
    printf(
        "channels: %ld opened, %ld refused, %ld service lost; %ld notifications for %ld "
        "changes: %ld notified, %ld lost, %ld unwatched (no channel open, or near its "
        "opening or close)\n",
        counts.channels.load(), counts.refused.load(), counts.serviceLost.load(),
        counts.notes.load(), changes, notified, lost, changes - notified - lost);
    printf(
        "hostile: %ld random packets (%ld unanswered), %ld cut connections, %ld idle "
        "connections (up to %zu at once)\n",
        counts.hostile.load(), counts.unanswered.load(), counts.cut.load(), counts.idle.load(),
        kIdleBurst);
    const size_t warmUp = std::min(samples.size(), samples.size() / 10 + 1);
    const std::vector<Sample> loaded(samples.begin() + warmUp, samples.end());
    const long rssTolerance = std::max(1024L, loaded.empty() ? 0 : loaded[0].rssKiB / 20);
    const std::string figures[] = {
        verdict("RSS", growth(loaded, &Sample::rssKiB), rssTolerance, 0, failed, " KiB"),
        verdict("threads", growth(loaded, &Sample::threads), kCountTolerance,
                settled.threads - idle.threads, failed),
        verdict("descriptors", growth(loaded, &Sample::fds), kCountTolerance,
                settled.fds - idle.fds, failed)};
    printf(
        "soak: %.1f min, %s, %s, %s; %ld queries, %ld failed; %ld changes, %ld notified, "
        "%ld lost\n",
        duration.count() / 60, figures[0].c_str(), figures[1].c_str(), figures[2].c_str(),
        counts.queries.load(), counts.failed.load(), changes, notified, lost);
    return failed || lost > 0 || counts.failed > 0 || counts.refused > 0 ||
           counts.serviceLost > 0 || counts.unanswered > 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string firstOp;
    const std::vector<std::string> versions =
        argc == 4 ? versionsOf(argv[3], firstOp) : std::vector<std::string>{};
    char scratch[] = "/tmp/talvoem-soak.XXXXXX";
    if (versions.empty() || atof(argv[1]) <= 0 || mkdtemp(scratch) == nullptr) {
        fprintf(stderr,
                "usage: talvoem-soak SECONDS TALVOEMD POLICY.json (under talvoem-launcher; "
                "POLICY.json has at least one function)\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    const Seconds duration(atof(argv[1]));
    const std::string policy = std::string(scratch) + "/policy.json";
    std::ofstream(policy) << versions[0];
    const pid_t service = startService(argv[2], policy);
    for (auto until = Clock::now() + std::chrono::seconds(10);
         roundTrip(queryText("")) != 0 && Clock::now() < until;) {
    }
    const Sample idle = awaitSample(
        service, [](const Sample& a, const Sample& b) { return a.threads == b.threads; });
    // Whatever happens to the service, the run ends.
    std::thread([service, duration] {
        std::this_thread::sleep_for(duration + std::chrono::seconds(60));
        fprintf(stderr, "soak: stuck 60 s past the end; service killed\n");
        kill(service, SIGKILL);
        _exit(1);
    }).detach();

    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(duration);
    std::deque<Session>& sessions = *new std::deque<Session>;
    std::vector<Clock::time_point> edits;
    std::vector<std::thread> load = startLoad(end, firstOp, policy, versions, sessions, edits);
    printf("%8s %9s %8s %5s %9s %7s %7s %6s\n", "time s", "RSS KiB", "threads", "fds", "queries",
           "failed", "changes", "notes");
    printf("%8s %9ld %8ld %5ld   (idle service, before the load)\n", "0", idle.rssKiB, idle.threads,
           idle.fds);
    const std::vector<Sample> samples =
        sampleUntil(service, end, std::clamp(duration / 60, Seconds(1), Seconds(5)));
    std::for_each(load.begin(), load.end(), [](std::thread& t) { t.join(); });
    const Sample settled = awaitSample(service, [&](const Sample&, const Sample& s) {
        return s.threads <= idle.threads && s.fds <= idle.fds;
    });
    printf("%8s %9ld %8ld %5ld   (load stopped, settled)\n", "end", settled.rssKiB, settled.threads,
           settled.fds);
    long notified = 0, lost = 0;
    tallyEdits(sessions, edits, notified, lost);

    kill(service, SIGTERM);
    int status = 0;
    waitpid(service, &status, 0);
    const bool serviceFailed = !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    if (serviceFailed) {
        printf("soak: talvoemd did not end cleanly (wait status %d)\n", status);
    }
    std::remove(policy.c_str());
    std::remove((policy + ".new").c_str());
    rmdir(scratch);
    return report(duration, samples, idle, settled, notified, lost, serviceFailed) ? 1 : 0;
}
