# tests/vm/guest/user.sh: the file systems' tests once more, over the driver in user space
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck shell=dash
# shellcheck disable=SC2034  # trak.sh reads it
carrier=user
# shellcheck source=tests/vm/guest/fs.sh
. /suites/fs.sh
