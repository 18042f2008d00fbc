// A fresh current directory per test, removed with its contents afterwards.
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
        ASSERT_TRUE(ZvFileUtil::GetCwd(m_savedCwd));
        ASSERT_TRUE(ZvFileUtil::ChDir(pattern));
        ASSERT_TRUE(ZvFileUtil::GetCwd(m_dir)); // the resolved form, as getcwd reports it
    }
    void TearDown() override {
        EXPECT_TRUE(ZvFileUtil::ChDir(m_savedCwd.c_str()));
        ZvFileUtil::DeleteDir(m_dir.c_str(), true);
    }
    static ZvAString Write(const char* name, const ZvAString& content) {
        EXPECT_TRUE(content.SaveToFile(name));
        return name;
    }
    static ZvAString Read(const ZvAString& path) {
        ZvAString content;
        EXPECT_TRUE(content.LoadFromFile(path.c_str()));
        return content;
    }

    ZvAString m_dir, m_savedCwd;
};
