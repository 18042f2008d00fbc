// Loading a directory by mistake: it opens for reading and some file systems report the largest
// offset as its size, which must end in a failed load, never in an abort.
#include <gtest/gtest.h>

#include "scratch_dir.h"
#include "zv-string-list-ascii.h"

using LoadDirectory = ScratchDir;

TEST_F(LoadDirectory, StringAndListLoadsFailAndKeepTheirContent) {
    ZvAString text("keep");
    EXPECT_FALSE(text.LoadFromFile(m_dir.c_str()));
    EXPECT_EQ(text, "keep");

    ZvAStringList lines;
    lines.Add("old");
    EXPECT_FALSE(lines.AppendFromFile(m_dir));
    EXPECT_EQ(lines.Count(), 1u);
    EXPECT_EQ(lines[0], "old");
}
