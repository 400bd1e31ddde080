#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TarnRegFile/RegisterFileChecker.h"
#include "tools/tarnreg/ExportVerb.h"
#include "tools/tarnreg/ShadowOrderVerbs.h"
#include "tools/tarnreg/ShadowVerbs.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

/// The verbs' arguments, as they are parsed.
struct Arguments {
   std::vector<std::string> patterns;
   std::vector<std::string> assignments;
   WriteOptions write;
   bool dumpAll = false;
   bool diffAll = false;
   double watchInterval = 1;
   std::uint64_t watchCount = 0;
   std::vector<std::string> conditions;
   double pollInterval = 0.1;
   double timeout = 10;
   double accessTimeout = 0;
   std::string otherDevice;
   std::string otherTransport;
   std::string dumpFile;
   std::string checkFile;
   TarnRegFile::ProblemSeverity failOn = TarnRegFile::ProblemSeverity::error;
   std::string type;
   std::string operation;
   std::vector<std::string> operands;
   std::string tableDirectory;
   std::string table;
   std::vector<std::string> tables;
   bool tableForce = false;
   std::uint64_t tableCount = 0;
   double tableTimeout = 0;
   ShadowSetOptions shadowSet;
   ShadowOrderOptions shadowOrder;
   double shadowTimeout = 10;
   bool shadowNoWait = false;
   std::vector<std::string> cores;
   std::string orderId;
   bool jsonLines = false;
   bool ascii = false;
   std::string script = "-";
   bool keepGoing = false;
   double waitTime = 0;
   std::vector<std::string> texts;
   ExportOptions exported;
   std::string exportTitle;
};

} // namespace TarnReg
