// daemon/starter.h: whoever started trakd, told how it went
// SPDX-License-Identifier: GPL-2.0-only
//
// In the foreground a failure is a line on standard error. As a daemon trakd runs in a child: the
// parent waits until the child serves, or says for it what went wrong.
#ifndef TRAKD_STARTER_H
#define TRAKD_STARTER_H

#include <string>

namespace trakd {

class Starter {
  public:
    // Goes on in a child of its own session: true there. False in the parent, once the child has
    // told: *status is the parent's exit status.
    [[nodiscard]] bool fork(int *status);
    // The tree answers. Standard input, output and error of a daemon go away.
    void ready();
    void fail(const std::string &why);

  private:
    bool wait_for_child(int *status) const;
    int pipe_ = -1;  // to the parent; none in the foreground
};

}  // namespace trakd

#endif
