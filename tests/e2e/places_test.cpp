// The mapped drive as a place of desktop file managers: mapping the demo
// device adds it with the device's label and icon, unmapping removes it, and
// the place of a killed instance goes at the next start. The user's own
// bookmarks stay byte for byte. XDG folders lie in the test's home.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <fstream>

#include "e2e/e2e_support.h"
#include "shell/place_files.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;

const std::string kUserGtk = "file:///home/ann/Music Music\ntrash:///\n";
const std::string kUserXbel =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE xbel>\n"
    "<xbel xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\">\n"
    " <bookmark href=\"file:///home/ann\">\n  <title>Home</title>\n </bookmark>\n</xbel>\n";

void Write(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << text;
}

class PlacesE2e : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_CONFIG_HOME", (home_.Path() / "xdg-config").c_str(), 1);
    setenv("XDG_DATA_HOME", (home_.Path() / "xdg-data").c_str(), 1);
    Write(gtk_, kUserGtk);
    Write(kde_, kUserXbel);
  }
  void TearDown() override {
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");
  }
  std::string Uri(char letter) { return qb::shell::places::FileUri(MountPointOf(letter)); }

  E2eHome home_;
  const fs::path gtk_ = home_.Path() / "xdg-config" / "gtk-3.0" / "bookmarks";
  const fs::path kde_ = home_.Path() / "xdg-data" / "user-places.xbel";
};

TEST_F(PlacesE2e, MappingAddsThePlaceWithTheDevicesLabelAndStorageAndUnmappingRemovesIt) {
  DriveGuard guard('Q');
  RunResult r = Quillbox({"/mn", "Quillbox Demo Phone", "/si", "1", "Q:"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ReadText(gtk_), kUserGtk + Uri('Q') + " Quillbox Demo Phone [Internal storage]\n");
  const std::string kde = ReadText(kde_);
  const std::string title = "<title>Quillbox Demo Phone [Internal storage]</title>";
  EXPECT_NE(kde.find("<bookmark href=\"" + Uri('Q') + "\">\n  " + title), std::string::npos) << kde;
  EXPECT_NE(kde.find("<bookmark:icon name=\"phone\"/>"), std::string::npos) << kde;
  // The place opens the drive.
  EXPECT_FALSE(ListNames(MountPointOf('Q')).empty());

  RunResult u = Quillbox({"/u", "Q:"});
  EXPECT_EQ(u.code, 0) << u.err;
  EXPECT_EQ(ReadText(gtk_), kUserGtk);
  EXPECT_EQ(ReadText(kde_), kUserXbel);
}

TEST_F(PlacesE2e, PlaceOfAKilledInstanceGoesAtTheNextStart) {
  const std::string id = home_.DemoDeviceId();
  ASSERT_FALSE(id.empty());
  DriveGuard stale('K');
  {
    ServingInstance serving(id, 'K', {"/si", "1"});
    ASSERT_TRUE(serving.WaitMapped());
    ASSERT_NE(ReadText(gtk_).find(Uri('K')), std::string::npos);
    serving.Signal(SIGKILL);
    int code = 0;
    ASSERT_TRUE(serving.Wait(10s, &code));
  }
  EXPECT_NE(ReadText(gtk_).find(Uri('K')), std::string::npos);  // nobody removed it yet
  Quillbox({"/u", "Z:"});  // any start of the program
  EXPECT_EQ(ReadText(gtk_), kUserGtk);
  EXPECT_EQ(ReadText(kde_), kUserXbel);
}

}  // namespace
}  // namespace qbtest
