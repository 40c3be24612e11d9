// tests/images/references.h: what the file systems' own tools say of an image
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_IMAGES_REFERENCES_H
#define TRAK_TESTS_IMAGES_REFERENCES_H

#include <cstdint>
#include <optional>
#include <string>

#include "tests/images/image_check.h"

namespace images {

// Nothing where the tool refuses the image, ends early or prints what can't be: the image may be damaged.
std::optional<Reference> ask_dumpe2fs(const std::string &image);
std::optional<Reference> ask_debugreiserfs(const std::string &image);
std::optional<Reference> ask_xfs_db(const std::string &image);

// The same of an image that is whole: a test failure where the tool does not answer.
Reference dumpe2fs(const std::string &image);
Reference debugreiserfs(const std::string &image);
Reference xfs_db(const std::string &image);

// Times that a block in use follows a free one, or the other way round.
std::size_t turns(const Reference &reference);

// The number of "name = number", as xfs_db prints it; a test failure where there is none.
std::uint64_t field(const std::string &text, const std::string &name);

}  // namespace images

#endif
