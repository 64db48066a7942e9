#pragma once

#include <span>
#include <string>

/// A file, or a folder with all that lies beneath it now and later.
struct FileAccess {
  std::string path;
  /// May be written too: files beneath it are made, replaced and removed.
  bool write = false;
};

/// From here on this process, and every program that it starts, can open nothing but `files`; a
/// path that does not exist is skipped. It also signals and reaches by abstract names only what
/// came to be so confined with it. What is open stays open. By Landlock: where the kernel lacks it,
/// one line in the log says so, and owners and modes alone protect files. Does nothing in a build
/// without confinement.
void allowOnlyFiles(std::span<const FileAccess> files);
