// vrkms-rights-table: prints the rights that each remote operation of the
// service asks for, as the Markdown table of the README's "Who may call".
// A development tool, not installed; a test checks that the README holds
// exactly this table.
#include <iostream>

#include "kms/server/KMSAuthTable.h"

int main() {
  std::cout << Vaultrest::DL::KMS::KMSRightsTable();
  return 0;
}
