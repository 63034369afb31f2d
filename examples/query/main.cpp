// A one-shot query with talvoem::queryService, its answer decoded with the
// codec.
//   example-query [OPERATION]     (default: the whole policy)
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "OemJsonUtils.h"
#include "TalvoemPolicyQuery.h"

using namespace OemJsonUtils::QueryPolicy;

int main(int argc, char** argv) {
    // The selector travels as the query's data, itself JSON written by the codec.
    std::string data;
    if (argc > 1) {
        Data selector;
        selector.op_name = argv[1];
        toJson(selector, data);
    }
    // Connects, sends, waits: never longer than the deadline, whatever the
    // service does. Safe from any thread, no object to keep.
    const talvoem::QueryAnswer answer = talvoem::queryService(1, data, std::chrono::seconds(2));
    if (answer.result != talvoem::QueryResult::kAnswered) {
        fprintf(stderr, "example-query: %s\n", talvoem::describe(answer.result));
        return 2;
    }
    // The service answered; its envelope's code says whether it found anything.
    if (answer.envelope.code != 0) {
        fprintf(stderr, "example-query: the service said %d (%s)\n", answer.envelope.code,
                answer.envelope.msg.c_str());
        return 1;
    }
    std::vector<Operate> ops;
    if (fromJson(answer.envelope.data, ops) != 0) {
        fprintf(stderr, "example-query: the answer's data is not a policy document\n");
        return 1;
    }
    for (const Operate& op : ops) {
        for (const Subsystem& subsys : op.subsyss) {
            for (const Function& func : subsys.funcs) {
                printf("%s/%s/%s: %s\n", op.name.c_str(), subsys.name.c_str(), func.name.c_str(),
                       func.enable ? "on" : "off");
            }
        }
    }
    return 0;
}
