#include "QueryRows.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "FloorWire.h"
#include "OemJsonUtils.h"
#include "SocketTransport.h"
#include "Stats.h"
#include "Workload.h"

namespace talvoem::bench {

bool libraryQuery() {
    int fd = establishConnection();
    if (fd < 0) {
        return false;
    }
    OemJsonUtils::QueryPolicy::Req req;
    req.api = "queryPolicy";
    req.type = kQueryType;
    std::string request;
    std::string answer;
    OemJsonUtils::Resp resp;
    bool ok = OemJsonUtils::QueryPolicy::toJson(req, request) == 0 && sendMsg(fd, request) == 0 &&
              recvMsg(fd, answer) > 0 && OemJsonUtils::fromJson(answer, resp) == 0 &&
              resp.code == 0 && !resp.data.empty();
    closeConnection(fd);
    return ok;
}

namespace {

template <bool kFreshBuffer>
bool floorQueryWith() {
    int fd = floor::connectTo(kFloorSocketPath);
    if (fd < 0) {
        return false;
    }
    Json::Value request;
    request["api"] = "queryPolicy";
    request["type"] = kQueryType;
    floor::Receiver receiver(kFreshBuffer);
    Json::Value answer;
    bool ok = floor::sendText(fd, floor::write(request));
    long n = ok ? receiver.receive(fd) : -1;
    ok = n > 0 && floor::parse(receiver.text(), receiver.text() + n, answer) && answer.isObject() &&
         answer["code"].asInt() == 0 && answer["msg"].asString() == "success" &&
         !answer["data"].asString().empty();
    close(fd);
    return ok;
}

}  // namespace

bool floorQuery() {
    return floorQueryWith<false>();
}

bool floorQueryFreshBuffer() {
    return floorQueryWith<true>();
}

QueryFigures runQueries(QueryOp op, int clients, const Budget& budget) {
    const uint64_t start = nowNs();
    const uint64_t deadline = start + static_cast<uint64_t>(budget.seconds * 1e9);
    const size_t perClient = std::max<size_t>(1, budget.maxOps / static_cast<size_t>(clients));
    std::vector<std::vector<uint64_t>> latencies(static_cast<size_t>(clients));
    std::vector<size_t> failures(static_cast<size_t>(clients), 0);
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            std::vector<uint64_t>& mine = latencies[static_cast<size_t>(c)];
            mine.reserve(perClient);
            while (mine.size() < perClient && nowNs() < deadline) {
                const uint64_t t0 = nowNs();
                failures[static_cast<size_t>(c)] += op() ? 0 : 1;
                mine.push_back(nowNs() - t0);
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    const double elapsed = static_cast<double>(nowNs() - start) / 1e9;
    std::vector<uint64_t> all;
    QueryFigures figures;
    for (int c = 0; c < clients; ++c) {
        all.insert(all.end(), latencies[static_cast<size_t>(c)].begin(),
                   latencies[static_cast<size_t>(c)].end());
        figures.failures += failures[static_cast<size_t>(c)];
    }
    figures.ops = all.size();
    figures.opsPerSec = static_cast<double>(all.size()) / elapsed;
    figures.p50Us = quantileUs(all, 0.50);
    figures.p99Us = quantileUs(all, 0.99);
    return figures;
}

}  // namespace talvoem::bench
