// A fresh directory per test, removed with its contents afterwards.
#pragma once

#include <cstdlib>
#include <gtest/gtest.h>

#include "zv-file-util.h"
#include "zv-string-ascii.h"

class ScratchDir : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/zv_common_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
    }
    void TearDown() override { ZvFileUtil::DeleteDir(m_dir.c_str(), true); }

    // The absolute path of `name` inside the directory.
    ZvAString Path(const char* name) const { return m_dir + "/" + name; }
    // Writes `content` to `name` and returns the path.
    ZvAString Write(const char* name, const ZvAString& content) const {
        ZvAString path = Path(name);
        EXPECT_TRUE(content.SaveToFile(path.c_str()));
        return path;
    }
    static ZvAString Read(const ZvAString& path) {
        ZvAString content;
        EXPECT_TRUE(content.LoadFromFile(path.c_str()));
        return content;
    }

    ZvAString m_dir;
};
