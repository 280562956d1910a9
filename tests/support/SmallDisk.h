#pragma once

// A small filesystem of its own for tests of a full disk, without touching the machine's disks:
// a tmpfs mounted in a private mount namespace (inside a user namespace of its own where the
// system allows one) of a child process that runs the same test again.

#include <cstdint>
#include <optional>
#include <string>

namespace testsupport {

// Called first in a test. In the test's own process it runs this same test again in a child
// that has a tmpfs of `bytes` mounted at a fresh directory, reports the child's failure as the
// test's, and answers none, so the test returns; where nothing can be mounted the test is
// skipped with the reason. In the child it answers the mount point.
std::optional<std::string> onSmallDisk(int64_t bytes);

// Fills the filesystem of `dir` to the last byte with a file in it; answers that file's path,
// whose removal gives the room back.
std::string fillDisk(const std::string &dir);

} // namespace testsupport
