#pragma once

// A configuration file written by a test and read as leitch-routerd reads it.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "sim/config.h"

namespace routerd {

class ConfigFileTest : public ::testing::Test {
protected:
    void TearDown() override { std::remove(path_.c_str()); }

    SimulatorConfig load(const std::string& text) {
        std::ofstream(path_) << text;
        return load_config(path_);
    }

    // The error's text with the file's name replaced by "FILE".
    std::string error_of(const std::string& text) {
        try {
            load(text);
        } catch (const ConfigError& e) {
            std::string message = e.what();
            if (message.rfind(path_, 0) == 0) message = "FILE" + message.substr(path_.size());
            return message;
        }
        return "no error";
    }

    std::string path_ = ::testing::TempDir() + "config_" + std::to_string(::getpid()) + ".toml";
};

}  // namespace routerd
