// Exit statuses of flat_file_child, shared with the tests that start it.
#pragma once

inline constexpr int kChildFailed = 2;
inline constexpr int kChildRefused = 77;
