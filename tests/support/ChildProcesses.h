#pragma once

#include <functional>

namespace brindle::test {

/// Runs `body` in a child of this process and answers its exit status, or the negative signal that ended it.
/// A child that does not end is ended by SIGALRM.
int statusOfChild(const std::function<int()>& body);

/// For a child: from now on no descriptor of that number or above can be opened, and no longer poll set be
/// waited for (RLIMIT_NOFILE).
bool limitDescriptors(unsigned count);

}  // namespace brindle::test
