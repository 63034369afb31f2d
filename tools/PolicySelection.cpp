#include "PolicySelection.h"

using OemJsonUtils::QueryPolicy::Data;
using OemJsonUtils::QueryPolicy::Function;
using OemJsonUtils::QueryPolicy::Operate;
using OemJsonUtils::QueryPolicy::Subsystem;

namespace {

bool matches(const std::string& wanted, const std::string& name) {
    return wanted.empty() || wanted == name;
}

bool selectSubsystem(const Subsystem& subsys, const Data& selector, Subsystem& out) {
    out.name = subsys.name;
    for (const Function& func : subsys.funcs) {
        if (matches(selector.func_name, func.name)) {
            out.funcs.push_back(func);
        }
    }
    return selector.func_name.empty() || !out.funcs.empty();
}

}  // namespace

std::vector<Operate> selectPolicy(const std::vector<Operate>& document, const Data& selector) {
    std::vector<Operate> selected;
    for (const Operate& op : document) {
        if (!matches(selector.op_name, op.name)) {
            continue;
        }
        Operate kept{op.name, {}};
        for (const Subsystem& subsys : op.subsyss) {
            Subsystem keptSubsys;
            if (matches(selector.subsys_name, subsys.name) &&
                selectSubsystem(subsys, selector, keptSubsys)) {
                kept.subsyss.push_back(std::move(keptSubsys));
            }
        }
        const bool deeperNamed = !selector.subsys_name.empty() || !selector.func_name.empty();
        if (!deeperNamed || !kept.subsyss.empty()) {
            selected.push_back(std::move(kept));
        }
    }
    return selected;
}
