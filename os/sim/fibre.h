// os/sim/fibre.h: stacks that one thread runs in turn
// SPDX-License-Identifier: GPL-2.0-only
//
// A fibre is a stack with the place where it stopped. Stacks come from a pool that lives as long as
// the program; below each lies a page that nobody may touch. A fibre that is never resumed costs
// nothing but what its frames own: its stack goes back to the pool as it is.
#ifndef TRAK_OS_SIM_FIBRE_H
#define TRAK_OS_SIM_FIBRE_H

#include <cstddef>

namespace sim {

struct Fibre {
    void *sp = nullptr;
    void *base = nullptr;  // lowest usable byte of the stack
    std::size_t size = 0;
    void *fake_stack = nullptr;  // the address sanitizer's
    void *tsan = nullptr;        // the thread sanitizer's
    void *caught[2] = {};        // exceptions being handled on this stack
};

// Gives the fibre a stack and makes it start in entry(arg), which must not return.
void fibre_start(Fibre &fibre, void (*entry)(void *), void *arg);
// Leaves `from` where it is and goes on in `to`; returns when somebody switches back.
void fibre_switch(Fibre &from, Fibre &to);
// Puts the stack back into the pool. The fibre must not be the running one.
void fibre_drop(Fibre &fibre);

}  // namespace sim

#endif
