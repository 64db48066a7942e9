#pragma once

/// The data type of a state variable.
enum VarType : int {
  VAR_UI4 = 0,      ///< decimal unsigned number
  VAR_UI2 = 1,      ///< decimal unsigned number below 65536
  VAR_STRING = 2,   ///< any text, or one of the allowed values if there are any
  VAR_BOOLEAN = 3,  ///< "1", "0", "true", "false", "yes" or "no", in lower case
};
