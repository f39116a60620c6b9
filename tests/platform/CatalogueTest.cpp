// The compiled-in catalogue: sorted (lookups are binary searches), complete
// for every message and status code the program names, and with as many
// placeholders as the callers pass arguments.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <map>
#include <string>

#include "kms/platform/CatalogueTexts.h"
#include "kms/platform/CrvnLis.h"

namespace {

// Messages of originator 286 and the number of arguments their users pass.
const std::map<int, int> kProgramMessages = {
    {1, 0},  {2, 0},  {3, 0},  {4, 0},  {5, 0},  {6, 0},   {7, 0},   {8, 0},   {9, 0},  {10, 0},
    {11, 0}, {12, 0}, {13, 0}, {14, 0}, {15, 0}, {16, 0},  {17, 0},  {18, 0},  {19, 0}, {20, 0},
    {21, 0}, {22, 0}, {23, 0}, {24, 0}, {25, 0}, {26, 0},  {27, 0},  {28, 0},  {29, 0}, {30, 0},
    {31, 0}, {32, 0}, {33, 0}, {34, 0}, {35, 0}, {36, 0},  {37, 0},  {38, 1},  {39, 1}, {40, 0},
    {41, 0}, {42, 0}, {43, 1}, {44, 1}, {45, 0}, {46, 1},  {47, 2},  {48, 1},  {49, 1}, {50, 0},
    {51, 1}, {52, 1}, {53, 1}, {54, 0}, {55, 0}, {56, 0},  {57, 0},  {58, 0},  {59, 0}, {60, 0},
    {61, 0}, {62, 0}, {63, 0}, {64, 1}, {65, 1}, {66, 0},  {67, 0},  {68, 0},  {69, 0}, {70, 0},
    {71, 1}, {72, 1}, {73, 1}, {74, 1}, {75, 0}, {76, 0},  {77, 1},  {78, 1},  {79, 0}, {80, 0},
    {81, 0}, {82, 0}, {83, 0}, {85, 0}, {86, 0}, {87, 0},  {88, 0},  {89, 4},  {92, 1}, {93, 0},
    {94, 0}, {95, 0}, {96, 0}, {97, 0}, {98, 0}, {110, 2}, {111, 3}, {112, 2},
};

// Every status code the program produces; 0 has a short text only.
const int kStatusCodes[] = {
    1200, 1201, 1202, 1203, 1204, 1205, 1206, 1207, 1208, 1209, 1210, 1212, 1214, 1215,
    1218, 1219, 1220, 1221, 1222, 1223, 1224, 1225, 1227, 1228, 1229, 1230, 1231, 1232,
    1233, 1234, 1235, 1236, 1237, 1238, 1239, 1240, 1241, 1242, 1243, 1244, 1245, 1246,
    1247, 1248, 1249, 1251, 1252, 1253, 1254, 1255, 1256, 1257, 1258, 1259, 1260, 1261,
    1262, 1263, 1264, 1265, 1267, 1268, 1269, 1270, 1271, 1272, 1274, 1275, 1276, 1277,
    1279, 1280, 1281, 1282, 1283, 1284, 1285, 1286, 1287, 1294, 1295,
};

int placeholders(const std::string& text) {
  int n = 0;
  for (size_t pos = text.find("{}"); pos != std::string::npos; pos = text.find("{}", pos + 2)) {
    ++n;
  }
  return n;
}

}  // namespace

TEST(Catalogue, SortedCompleteAndEveryRowFoundByItsLookup) {
  for (size_t i = 0; i < kCatalogueTextCount; ++i) {
    const CatalogueText& row = kCatalogueTexts[i];
    ASSERT_NE(row.text, nullptr);
    EXPECT_STRNE(row.text, "") << row.originator << "/" << row.id;
    EXPECT_EQ(crvnCatalogueText(row.originator, row.id), row.text) << "row " << i;
    if (i > 0) {
      const CatalogueText& prev = kCatalogueTexts[i - 1];
      EXPECT_LT(std::make_pair(prev.originator, prev.id), std::make_pair(row.originator, row.id))
          << "row " << i;
    }
    // No text of 286 the program never asks for.
    EXPECT_TRUE(row.originator != 286 || kProgramMessages.count(row.id) == 1) << row.id;
  }
  for (size_t i = 0; i < kStatusTextCount; ++i) {
    EXPECT_EQ(getECmsg(kStatusTexts[i].code), kStatusTexts[i].shortText) << "row " << i;
    EXPECT_TRUE(i == 0 || kStatusTexts[i - 1].code < kStatusTexts[i].code) << "row " << i;
  }
  for (const auto& [id, arguments] : kProgramMessages) {
    const char* text = crvnCatalogueText(286, id);
    ASSERT_NE(text, nullptr) << "message " << id;
    EXPECT_EQ(placeholders(text), arguments) << "message " << id << ": " << text;
  }
  ASSERT_NE(getECmsg(0), nullptr);
  for (int code : kStatusCodes) {
    EXPECT_NE(getECmsg(code), nullptr) << code;
    const char* text = crvnCatalogueText(271, code);
    ASSERT_NE(text, nullptr) << code;
    EXPECT_EQ(placeholders(text), 0) << code;
  }
  EXPECT_EQ(kStatusTextCount, std::size(kStatusCodes) + 1);  // plus the text of 0
  for (int unused : {1199, 1211, 1213, 1250, 1296}) {
    EXPECT_EQ(getECmsg(unused), nullptr) << unused;
    EXPECT_EQ(crvnCatalogueText(271, unused), nullptr) << unused;
  }
  EXPECT_EQ(crvnCatalogueText(286, 0), nullptr);
  EXPECT_EQ(crvnCatalogueText(999, 1), nullptr);
}

TEST(Catalogue, BuildsArgumentsFromAPrintfStyleFormat) {
  crvnLis lis;
  ASSERT_EQ(crvnLisBuild(&lis, 47, "%s%d", "/x", -5), CRVN_LIS_SUCCESS);
  char* out = nullptr;
  ASSERT_EQ(xlatemsg(286, 47, &lis, &out), CRVN_LIS_SUCCESS);
  EXPECT_STREQ(out, "The file /x could not be renamed to -5.");
  std::free(out);
  crvnLisFree(&lis);

  // Every conversion, with text between them skipped; "%lud" is "%lu" and a "d".
  ASSERT_EQ(
      crvnLisBuild(&lis, 89, "[%hd] %lud %c%%%lf", static_cast<short>(-2), 4000000000UL, 'x', 1.5),
      CRVN_LIS_SUCCESS);
  ASSERT_EQ(xlatemsg(286, 89, &lis, &out), CRVN_LIS_SUCCESS);
  EXPECT_STREQ(out, "Assertion failed: (-2) in file 4000000000 at line x1.500000");
  std::free(out);
  crvnLisFree(&lis);

  EXPECT_EQ(crvnLisBuild(&lis, 47, "%s%q", "a", 1), CRVN_LIS_BAD_ARG);
  EXPECT_EQ(lis.argCount, 0);
  EXPECT_EQ(crvnLisBuild(&lis, 47, "%"), CRVN_LIS_BAD_ARG);
  EXPECT_EQ(crvnLisBuild(&lis, 47, nullptr), CRVN_LIS_BAD_ARG);
  ASSERT_EQ(crvnLisBuild(&lis, 83, ""), CRVN_LIS_SUCCESS);
  EXPECT_EQ(lis.argCount, 0);
}
