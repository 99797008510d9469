// put, get and rm.
#pragma once

#include <string>

#include "cli/device.h"

// Uploads `local` to `remote` and checks the device's copy: by the device's
// md5sum where it has one, else by reading the copy back. Exit status 4 when
// the copy differs.
int put_file(device& dev, const std::string& local, const std::string& remote);

// Downloads `remote` into `local` ("-": standard output). A file is written
// under a temporary name beside it and renamed only when complete. An
// existing directory receives the file under its remote name.
int get_file(device& dev, const std::string& remote, const std::string& local);

int remove_file(device& dev, const std::string& remote);

// Where get stores `remote` when the user named `local` ("" for none).
std::string local_name_for(const std::string& remote, const std::string& local);
