// Work directories of the tests: made under /tmp, removed with whatever the
// code under test left in them.
#ifndef CMP_IPP_TESTS_TEMP_DIR_H
#define CMP_IPP_TESTS_TEMP_DIR_H

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

// A new directory "/tmp/<prefix>-XXXXXX"; empty when it could not be made.
inline std::string makeTempDir(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    return mkdtemp(&pattern[0]) != nullptr ? pattern : std::string();
}

// The paths of the entries in dir, "." and ".." and hidden ones left out.
inline std::vector<std::string> filesIn(const std::string& dir) {
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    return out;
}

// Removes dir with everything in it.
inline void removeDir(const std::string& dir) {
    if (dir.empty()) return;
    for (const std::string& f : filesIn(dir))
        if (unlink(f.c_str()) != 0) removeDir(f);
    rmdir(dir.c_str());
}

#endif
