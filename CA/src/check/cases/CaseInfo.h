/*
 * One conformance case: its number, its name, what it needs, and the code
 * that runs it. Numbers are grouped by area in thousands (1xxx seed and
 * keys, 2xxx special transactions, 3xxx generate, 4xxx delete, 5xxx check
 * mnemonic, 6xxx PIN, 7xxx arguments, 8xxx own seed).
 */
#ifndef TESSERA_CHECK_CASEINFO_H
#define TESSERA_CHECK_CASEINFO_H

#include <functional>
#include <string>
#include <vector>

#include "cases/CaseContext.h"

namespace check {

struct CaseInfo {
  int id = 0;
  std::string name;
  /* Replaces or deletes the wallet's seed or PIN: runs only with
   * --allow-wipe. */
  bool destructive = false;
  /* Works on the operator's seed: runs only with --seed. */
  bool needsOwnSeed = false;
  std::function<void(CaseContext&)> run;
};

/* Returns the name of the area of a case number ("seed and keys" for 1xxx,
 * ..., "own seed" for 8xxx; "other" outside them). */
[[nodiscard]] const char* AreaName(int id);

/* Each appends the cases of its area, in the order of their numbers. */
void AddSeedKeyCases(std::vector<CaseInfo>& cases);
void AddSpecialTransactionCases(std::vector<CaseInfo>& cases);
void AddGenerateCases(std::vector<CaseInfo>& cases);
void AddDeleteCases(std::vector<CaseInfo>& cases);
void AddMnemonicCases(std::vector<CaseInfo>& cases);
void AddPinCases(std::vector<CaseInfo>& cases);
void AddArgumentCases(std::vector<CaseInfo>& cases);
void AddOwnSeedCases(std::vector<CaseInfo>& cases);

}  // namespace check

#endif  // TESSERA_CHECK_CASEINFO_H
