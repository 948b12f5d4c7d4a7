#pragma once

#include <string>

namespace krv::server {

/// Gives an open file what it inherits from the file that it is to replace, as far as the user may: its permission
/// bits, group, access control list and extended attributes of users ("user."). Set-user-id, set-group-id and sticky
/// bits, file capabilities and security labels are not inherited.
///
/// folder and name: the file to replace. Returns whether there is one; otherwise the open file is unchanged.
bool inheritFrom(int folder, const std::string& name, int file);

}  // namespace krv::server
