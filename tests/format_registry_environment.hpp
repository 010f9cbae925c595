#pragma once
// Keeps the vertex format registry initialised for the whole test program that includes this (once,
// however many of its sources do).

#include "moo/primitive_vertex_format.hpp"

#include <gtest/gtest.h>

namespace test_environment
{

class FormatRegistryEnvironment final : public ::testing::Environment
{
public:
  void SetUp() override { Moo::PrimitiveVertexFormat::init(0); }
  void TearDown() override { Moo::PrimitiveVertexFormat::fini(); }
};

[[maybe_unused]] inline ::testing::Environment* const s_formatRegistry =
  ::testing::AddGlobalTestEnvironment(new FormatRegistryEnvironment);

} // namespace test_environment
