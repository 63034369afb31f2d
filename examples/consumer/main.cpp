// Uses the installed library: encodes a policy document and reads it back.
#include <cstdio>

#include "OemJsonUtils.h"
#include "SocketOemQueryClient.h"

int main() {
    std::vector<OemJsonUtils::QueryPolicy::Operate> ops = {
        {"camera", {{"capture", {{"hdr", true}}}}}};
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(ops, text);
    std::vector<OemJsonUtils::QueryPolicy::Operate> back;
    SocketOemQueryClient client;
    std::string answer;
    client.queryPolicy(1, "", &answer);
    bool ok = OemJsonUtils::QueryPolicy::fromJson(text, back) == 0 && back.size() == 1 &&
              answer == "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}";
    printf("%s", ok ? text.c_str() : "consumer: unexpected result\n");
    return ok ? 0 : 1;
}
