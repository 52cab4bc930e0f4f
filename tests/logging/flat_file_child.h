// The exit status of flat_file_child when the machine refuses namespaces.
#pragma once

inline constexpr int kChildRefused = 77;
