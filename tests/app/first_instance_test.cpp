// What the first instance of a session does with the settings: the pending
// cache root, and the texts of the installation check.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/run_process.h"
#include "app/super_globals.h"
#include "i18n/i18n.h"
#include "i18n/lang_file_writer.h"
#include "support/files.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// The pending root is taken over once: the old cache folder goes, the trace
// log and the rescued data beside it stay, and the pending value is cleared.
TEST(PendingCacheRoot, IsTakenOverOnceAndSparesTheLogAndRescuedData) {
  qbtest::ScopedHome home;
  const fs::path newRoot = home / "newroot";
  qbtest::WriteHive(home / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox",
                    {"\"Flags\"=dword:00000001", "\"CacheRootPending\"=\"" + newRoot.string() + "\""});
  const fs::path quillbox = home / "local" / "Quillbox";
  qbtest::WriteText(quillbox / "QUILLBOX_CACHE" / "W" / "old.jpg", "cached");
  qbtest::WriteText(quillbox / "Rescued" / "note.txt", "written by the user");

  auto r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/?"}, 20s);
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(fs::exists(quillbox / "QUILLBOX_CACHE")) << "the old cache folder goes";
  EXPECT_EQ(qbtest::ReadText(quillbox / "Rescued" / "note.txt"), "written by the user");
  const std::string log = qbtest::ReadText(quillbox / "QUILLBOX.log");
  EXPECT_NE(log.find("M10@main: RETURN"), std::string::npos) << "the log of this start is whole:\n" << log;
  const std::string hive = qbtest::ReadText(home / "user.reg");
  EXPECT_EQ(hive.find("CacheRootPending"), std::string::npos) << hive;
  EXPECT_NE(hive.find("\"CacheRoot\"=\"" + newRoot.string() + "\""), std::string::npos) << hive;

  // The next first instance has nothing to take over: a cache made meanwhile
  // under the new root stays.
  qbtest::WriteText(newRoot / "Quillbox" / "QUILLBOX_CACHE" / "W" / "new.jpg", "cached");
  r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/?"}, 20s);
  ASSERT_TRUE(r.finished);
  EXPECT_TRUE(fs::exists(newRoot / "Quillbox" / "QUILLBOX_CACHE" / "W" / "new.jpg"));
}

TEST(PendingCacheRoot, EqualToTheCurrentRootIsOnlyCleared) {
  qbtest::ScopedHome home;
  const fs::path root = home / "root";
  qbtest::WriteHive(home / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox",
                    {"\"CacheRoot\"=\"" + root.string() + "\"", "\"CacheRootPending\"=\"" + root.string() + "/\""});
  qbtest::WriteText(root / "Quillbox" / "QUILLBOX_CACHE" / "W" / "kept.jpg", "cached");
  auto r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/?"}, 20s);
  ASSERT_TRUE(r.finished);
  EXPECT_TRUE(fs::exists(root / "Quillbox" / "QUILLBOX_CACHE" / "W" / "kept.jpg"));
  EXPECT_EQ(qbtest::ReadText(home / "user.reg").find("CacheRootPending"), std::string::npos);
}

// The installation check speaks the user's language like every other text.
TEST(InstallationCheck, MessagesComeFromTheTexts) {
  qbtest::ScopedHome home;
  EXPECT_EQ(qb::app::InstallationCheckText(231, 400), "");
  EXPECT_EQ(qb::app::InstallationCheckText(230, 400), "QUILLBOX is not compatible with LIBFUSE3");
  EXPECT_EQ(qb::app::InstallationCheckText(231, 0), "/dev/fuse is not available.");
  EXPECT_EQ(qb::app::InstallationCheckText(231, 399), "QUILLBOX is not compatible with /DEV/FUSE");

  const fs::path file = home / "Testish.lng";
  qbtest::WriteLangFile(file, qbtest::LangHeader() + "104=#1 fehlt.\r\n105=#1 passt nicht zu #2\r\n");
  ASSERT_TRUE(I18N_InitFromFile(file));
  EXPECT_EQ(qb::app::InstallationCheckText(230, 400), "QUILLBOX passt nicht zu LIBFUSE3");
  EXPECT_EQ(qb::app::InstallationCheckText(231, 0), "/dev/fuse fehlt.");
  I18N_DeInit();
}

}  // namespace
