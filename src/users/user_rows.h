// What the account exports share with the internal operations: the bindings of a user row, the
// table's catalogue entry and the statements that find users.
#pragma once

#include <string>

#include "frame/catalogue.h"
#include "frame/exchange.h"

namespace mv {

// T_Index, UserName, Password, UserAttribute into a UserRec.
extern const FieldBinding kUserBindings[4];

const TableDef& userTable();

// "SELECT * FROM UserInfoTBL WHERE UserName='...'" with the name quoted.
std::string userByNameSql(const char* name);
// The administrator's row.
extern const char kAdminSql[];

}  // namespace mv
