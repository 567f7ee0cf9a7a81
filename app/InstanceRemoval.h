#pragma once

#include "app/DeleteDirEntry.h"

extern "C" {

/**
 * Removes the files of one instance, as the instance file list on standard input names them:
 * children before their parents, a directory only if it is empty by then. What cannot be removed is
 * reported on standard error, a line each, and left.
 * @param vhost_dir  the virtual host's directory.
 * @param prefix     installation directory inside the document root; "." is the document root
 * itself.
 * @throws std::runtime_error on a malformed list, with nothing removed.
 */
void sapp_delete_instance(const char* vhost_dir, const extract_params_t* params,
                          const char* prefix);
}
