// dovmad-user: touching files that belong to others.
//
// The program is run by root, its files lie in folders of the daemon's user. Whoever owns a folder
// can lay a link in it that leads to any file of root's, so root's rights end there.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "lib/unique_fd.h"

// While one lives, root has the ids of the first other user who could have a say in where one of
// the paths leads: the owner of a folder or a link on the way. Nothing happens when all of it is
// root's, or when the program is not run by root. They do not nest.
class borrowed_ids {
  public:
    explicit borrowed_ids(const std::vector<std::string>& paths);
    ~borrowed_ids();
    borrowed_ids(const borrowed_ids&) = delete;
    borrowed_ids& operator=(const borrowed_ids&) = delete;
    borrowed_ids(borrowed_ids&&) = delete;
    borrowed_ids& operator=(borrowed_ids&&) = delete;

  private:
    std::vector<gid_t> groups_;  // root's own
    gid_t group_ = 0;
    bool borrowed_ = false;
};

// While one lives, no other dovmad-user changes the folder's files: nobody loses the other's
// change. A folder that cannot be opened is not locked; who then changes a file in it reports why
// it fails.
class folder_lock {
  public:
    explicit folder_lock(const std::string& folder);

  private:
    unique_fd folder_;
};
