// The drive's place in file managers: the user's own bookmarks stay as they
// were, byte for byte; ours are added once and removed again; malformed
// files are never touched.
#include "shell/places.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "platform/dokan/dokan_linux.h"
#include "shell/place_files.h"
#include "support/test_home.h"

namespace qb::shell {
namespace {

namespace fs = std::filesystem;
using places::Place;

const std::string kUserGtk =
    "file:///home/ann/Music Music\n"
    "sftp://ann@nas.local/srv/photos Photos on NAS\r\n"
    "\n"
    "file:///home/ann/%C3%84rger \xC3\x84rger & co\n"
    "trash:///\n";

const std::string kUserXbel =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE xbel>\n"
    "<xbel xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\""
    " xmlns:kdepriv=\"http://www.kde.org/kdepriv\">\n"
    " <info>\n  <metadata owner=\"http://www.kde.org\">\n   <kde_places_version>4</kde_places_version>\n"
    "  </metadata>\n </info>\n"
    " <bookmark href=\"file:///home/ann\">\n  <title>Home</title>\n"
    "  <info>\n   <metadata owner=\"http://freedesktop.org\">\n    <bookmark:icon name=\"user-home\"/>\n"
    "   </metadata>\n  </info>\n </bookmark>\n"
    " <!-- <bookmark href=\"file:///old\"> kept as a comment -->\n"
    " <bookmark href=\"trash:/\"><title>Trash &amp; bin</title></bookmark>\n"
    "</xbel>\n";

const Place kPhone{"file:///run/quillbox/drives/Q", "Pixel 7 [SD card]", "phone"};
const Place kCamera{"file:///run/quillbox/drives/R", "EOS <R6>", "camera-photo"};

auto UriIs(const std::string& uri) {
  return [uri](const std::string& u) { return u == uri; };
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string Read(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void Write(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << text;
}

TEST(PlaceFiles, GtkPlaceIsAddedOnceAndRemovedLeavingTheUsersLinesAsTheyWere) {
  auto with = places::GtkWith(kUserGtk, kPhone);
  ASSERT_TRUE(with);
  EXPECT_EQ(*with, kUserGtk + "file:///run/quillbox/drives/Q Pixel 7 [SD card]\n");
  EXPECT_EQ(places::GtkWith(*with, kPhone), with);  // again: nothing changes
  auto both = places::GtkWith(*with, kCamera);
  ASSERT_TRUE(both);
  EXPECT_EQ(places::GtkWithout(*places::GtkWithout(*both, UriIs(kPhone.uri)), UriIs(kCamera.uri)), kUserGtk);
  // A last line without its line break keeps its bytes; ours starts a line.
  EXPECT_EQ(*places::GtkWith("file:///a A", kPhone), "file:///a A\n" + kPhone.uri + " Pixel 7 [SD card]\n");
  // A label cannot break the line.
  EXPECT_EQ(*places::GtkWith("", {kPhone.uri, "two\nlines", ""}), kPhone.uri + " two lines\n");
}

TEST(PlaceFiles, GtkDuplicatesLeftByAnEarlierRunBecomeOneEntryInItsPlace) {
  const std::string twice = kPhone.uri + " Old\n" + kUserGtk + kPhone.uri + " Older\n";
  auto once = places::GtkWith(twice, kPhone);
  ASSERT_TRUE(once);
  EXPECT_EQ(*once, kPhone.uri + " Pixel 7 [SD card]\n" + kUserGtk);
}

TEST(PlaceFiles, MalformedFilesAreRefused) {
  for (const std::string& bad : {std::string("file:///a\0b\n", 11), std::string("file:///\xC3(\n"),
                                 std::string("just a note\n"), std::string(" file:///leading-blank\n")}) {
    EXPECT_FALSE(places::GtkWith(bad, kPhone)) << bad;
    EXPECT_FALSE(places::GtkWithout(bad, UriIs(kPhone.uri))) << bad;
  }
  const std::string cut = kUserXbel.substr(0, kUserXbel.size() - 8);
  for (const std::string& bad :
       {cut, std::string("<xbel><bookmark href=\"x\"></xbel></bookmark>"), std::string("<xbel/>"),
        std::string("<xbel></xbel><xbel></xbel>"), std::string("<places></places>"),
        std::string("<xbel><!-- open comment </xbel>"), std::string("<xbel> <title a=\"b></title></xbel>"),
        std::string("stray <xbel></xbel>"), std::string("<xbel>\xFF</xbel>")}) {
    EXPECT_FALSE(places::XbelWith(bad, kPhone)) << bad;
    EXPECT_FALSE(places::XbelWithout(bad, UriIs(kPhone.uri))) << bad;
  }
}

TEST(PlaceFiles, XbelPlaceCarriesLabelAndIconAndLeavesEveryOtherByte) {
  auto with = places::XbelWith(kUserXbel, kCamera);
  ASSERT_TRUE(with);
  EXPECT_EQ(Count(*with, "<bookmark href=\"file:///run/quillbox/drives/R\">"), 1u);
  EXPECT_NE(with->find("<title>EOS &lt;R6&gt;</title>"), std::string::npos);
  EXPECT_NE(with->find("<bookmark:icon name=\"camera-photo\"/>"), std::string::npos);
  EXPECT_EQ(with->substr(with->size() - 8), "</xbel>\n");
  EXPECT_EQ(places::XbelWith(*with, kCamera), with);
  auto both = places::XbelWith(*with, kPhone);
  ASSERT_TRUE(both);
  EXPECT_EQ(places::XbelWithout(*places::XbelWithout(*both, UriIs(kCamera.uri)), UriIs(kPhone.uri)), kUserXbel);
  // The commented-out bookmark is text, not an entry: nothing to remove.
  EXPECT_EQ(places::XbelWithout(kUserXbel, UriIs("file:///old")), kUserXbel);
  // Two of ours (an earlier crash) become one.
  std::string twice = *with;
  twice.insert(twice.find("</xbel>"), with->substr(with->find(" <bookmark href=\"file:///run"),
                                                   with->find("</xbel>") - with->find(" <bookmark href=\"file:///run")));
  EXPECT_EQ(places::XbelWith(twice, kCamera), with);
}

TEST(PlaceFiles, XbelWithoutTheBookmarkNamespaceGetsItOnTheIcon) {
  auto with = places::XbelWith("<xbel></xbel>", kPhone);
  ASSERT_TRUE(with);
  EXPECT_NE(with->find("<bookmark:icon xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\""
                       " name=\"phone\"/>"),
            std::string::npos);
  EXPECT_EQ(places::XbelWithout(*with, UriIs(kPhone.uri)), "<xbel>\n</xbel>");
}

class PlacesHome : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_CONFIG_HOME", (home_ / "xdg-config").c_str(), 1);
    setenv("XDG_DATA_HOME", (home_ / "xdg-data").c_str(), 1);
  }
  void TearDown() override {
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");
  }
  qbtest::ScopedHome home_;
};

TEST_F(PlacesHome, FilesFollowXdgOnlyInsideTheHome) {
  EXPECT_EQ(GtkBookmarksFile(), home_ / "xdg-config" / "gtk-3.0" / "bookmarks");
  EXPECT_EQ(KdePlacesFile(), home_ / "xdg-data" / "user-places.xbel");
  setenv("XDG_CONFIG_HOME", "/home/someone/.config", 1);
  EXPECT_EQ(GtkBookmarksFile(), home_ / "config" / "gtk-3.0" / "bookmarks");
}

TEST_F(PlacesHome, MalformedFileOnDiskIsLeftByteForByte) {
  const std::string bad = "not a bookmark list\n";
  Write(GtkBookmarksFile(), bad);
  Write(KdePlacesFile(), "<xbel><bookmark></xbel>");
  AddDrivePlace('Q', "Phone", 3);
  EXPECT_EQ(Read(GtkBookmarksFile()), bad);
  EXPECT_EQ(Read(KdePlacesFile()), "<xbel><bookmark></xbel>");
  auto add = [](const std::string& t) { return places::GtkWith(t, kPhone); };
  EXPECT_FALSE(places::EditFile(GtkBookmarksFile(), true, add));
  // No temporary file is left beside it.
  EXPECT_EQ(fs::directory_iterator(GtkBookmarksFile().parent_path())->path(), GtkBookmarksFile());
}

TEST_F(PlacesHome, MissingGtkListIsMadeAndMissingKdePlacesStayMissing) {
  RemoveStalePlaces();  // nothing to remove makes no file
  EXPECT_FALSE(fs::exists(GtkBookmarksFile()));
  AddDrivePlace('Q', "Phone", 3);
  EXPECT_EQ(Read(GtkBookmarksFile()), places::FileUri(dokan::MountPointOf('Q')) + " Phone\n");
  EXPECT_FALSE(fs::exists(KdePlacesFile()));
  RemoveDrivePlace('Q');
  EXPECT_EQ(Read(GtkBookmarksFile()), "");
}

TEST_F(PlacesHome, LinkedListIsEditedAtItsTarget) {
  const fs::path target = home_ / "dotfiles" / "bookmarks";
  Write(target, kUserGtk);
  fs::create_directories(GtkBookmarksFile().parent_path());
  fs::create_symlink(target, GtkBookmarksFile());
  AddDrivePlace('Q', "Phone", 3);
  EXPECT_TRUE(fs::is_symlink(GtkBookmarksFile()));
  EXPECT_EQ(Count(Read(target), "/Q Phone\n"), 1u);
  RemoveDrivePlace('Q');
  EXPECT_EQ(Read(target), kUserGtk);
}

TEST_F(PlacesHome, TwoDrivesAddedAndRemovedAtOnceLoseNothing) {
  Write(GtkBookmarksFile(), kUserGtk);
  Write(KdePlacesFile(), kUserXbel);
  auto churn = [](char letter) {
    for (int i = 0; i < 40; ++i) {
      AddDrivePlace(letter, std::string("Drive ") + letter, 2);
      if (i % 2 == 0) RemoveDrivePlace(letter);  // the last round adds
    }
  };
  std::thread a(churn, 'Q'), b(churn, 'R');
  a.join();
  b.join();
  const std::string gtk = Read(GtkBookmarksFile()), kde = Read(KdePlacesFile());
  for (char letter : {'Q', 'R'}) {
    const std::string uri = places::FileUri(dokan::MountPointOf(letter));
    EXPECT_EQ(Count(gtk, uri + " Drive "), 1u) << gtk;
    EXPECT_EQ(Count(kde, "href=\"" + uri + "\""), 1u) << kde;
  }
  EXPECT_EQ(gtk.substr(0, kUserGtk.size()), kUserGtk);
  RemoveDrivePlace('Q');
  RemoveDrivePlace('R');
  EXPECT_EQ(Read(GtkBookmarksFile()), kUserGtk);
  EXPECT_EQ(Read(KdePlacesFile()), kUserXbel);
}

TEST_F(PlacesHome, StalePlacesOfDrivesNobodyServesGoAndOthersStay) {
  Write(GtkBookmarksFile(), kUserGtk);
  Write(KdePlacesFile(), kUserXbel);
  AddDrivePlace('K', "Killed", 3);
  const std::string elsewhere = "file:///media/ann/K Someone else's K\n";
  Write(GtkBookmarksFile(), Read(GtkBookmarksFile()) + elsewhere);
  RemoveStalePlaces();
  EXPECT_EQ(Read(GtkBookmarksFile()), kUserGtk + elsewhere);
  EXPECT_EQ(Read(KdePlacesFile()), kUserXbel);
}

}  // namespace
}  // namespace qb::shell
