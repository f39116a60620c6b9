#include "kms/platform/VrConfReader.h"

#include <gtest/gtest.h>

#include <map>

TEST(VrConfReader, SkipsCommentsCountsBadLinesAndReadsValues) {
  VrConfReader conf;
  conf.parse(
      "# master configuration\n"
      "   # indented comment = not an entry\n"
      "\n"
      "SERVER = master.example\n"
      "SERVER=media1\n"
      "  SERVER   =   media2  \r\n"
      "no equals sign here\n"
      "TWO WORDS = x\n"
      " = no name\n"
      "KMS_DIR = /srv/kms = odd\n"
      "EMPTY =\n"
      "server = lower-case names are other names\n"
      "A = YES\nB = no\nC = TRUE\nD = 0\nE = yEs\nF = False\nG = 1\nH = maybe\nI = 2\n");
  EXPECT_EQ(conf.badLines(), 3);
  EXPECT_EQ(conf.servers(), (std::vector<std::string>{"master.example", "media1", "media2"}));
  EXPECT_EQ(conf.get("SERVER"), "master.example");
  EXPECT_EQ(conf.get("KMS_DIR"), "/srv/kms = odd");  // split at the first "="
  EXPECT_TRUE(conf.has("EMPTY"));
  EXPECT_EQ(conf.get("EMPTY", "fallback"), "");
  EXPECT_EQ(conf.get("MISSING", "fallback"), "fallback");
  EXPECT_EQ(conf.getAll("server").size(), 1u);
  // Booleans in any case; other words leave the value untouched.
  for (const auto& [name, value] : std::map<std::string, int>{{"A", 1},
                                                              {"B", 0},
                                                              {"C", 1},
                                                              {"D", 0},
                                                              {"E", 1},
                                                              {"F", 0},
                                                              {"G", 1},
                                                              {"H", -1},
                                                              {"I", -1},
                                                              {"EMPTY", -1},
                                                              {"ABSENT", -1}}) {
    bool b = value != 1;
    EXPECT_EQ(conf.getBool(name, &b), value >= 0) << name;
    EXPECT_EQ(b, value == 1 || value < 0) << name;
  }
  EXPECT_EQ(conf.getInt("I", -1), 2);
  EXPECT_EQ(conf.getInt("H", -1), -1);
  VrConfReader none;
  none.parse("# nothing\n");
  EXPECT_TRUE(none.servers().empty());
}
