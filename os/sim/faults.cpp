// os/sim/faults.cpp: which call fails
// SPDX-License-Identifier: GPL-2.0-only
#include "os/sim/kernel.h"

namespace sim {
namespace {

FaultPlan &plan_of(Fault kind) {
    return kernel().faults[static_cast<std::size_t>(kind)];
}

}  // namespace

bool fault(Fault kind) {
    FaultPlan &plan = plan_of(kind);
    plan.count++;
    if (plan.cut_at == plan.count)
        power_cut();
    if (plan.fail_at == plan.count) {
        plan.fail_at = 0;
        return true;
    }
    return plan.per_mille && kernel().rng.below(1000) < plan.per_mille;
}

void fail_nth(Fault kind, std::uint64_t nth) {
    plan_of(kind).fail_at = plan_of(kind).count + nth;
}

void fail_random(Fault kind, unsigned per_mille) {
    plan_of(kind).per_mille = per_mille;
}

void fail_none() {
    for (FaultPlan &plan : kernel().faults) {
        plan.fail_at = 0;
        plan.per_mille = 0;
    }
}

void power_cut_at(Fault kind, std::uint64_t nth) {
    plan_of(kind).cut_at = plan_of(kind).count + nth;
}

std::uint64_t fault_points(Fault kind) {
    return plan_of(kind).count;
}

}  // namespace sim
