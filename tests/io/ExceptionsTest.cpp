#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <ios>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>

namespace {

using namespace Quovane::Io;

template <typename Exception>
class PipeFailure : public ::testing::Test {};

using PipeFailures = ::testing::Types<QvPipeException, BindException, BrokenPipeException, ConnectException,
                                      InterruptedException, TimeoutException>;
TYPED_TEST_SUITE(PipeFailure, PipeFailures, );

/// Whether throwing the exception enters a handler for `Caught`.
template <typename Caught, typename Exception>
bool isCaughtAs(const Exception& exception) {
    try {
        throw exception;
    } catch (const Caught&) {
        return true;
    } catch (...) {
        return false;
    }
}

TYPED_TEST(PipeFailure, HasTheTextAndCodeZeroUnlessOneIsGiven) {
    TypeParam exception("It broke.");
    EXPECT_EQ(exception.getMessage(), "It broke.");
    EXPECT_EQ(exception.getCode(), 0);
}

TYPED_TEST(PipeFailure, KeepsItsCodeInCopies) {
    const TypeParam exception("It broke.", 7);
    TypeParam copy(exception);
    EXPECT_EQ(copy.getCode(), 7);
    EXPECT_EQ(copy.getMessage(), "It broke.");
    EXPECT_STREQ(copy.what(), exception.what());
}

TYPED_TEST(PipeFailure, TakesTextCodeAndWhatOverByAssignment) {
    const TypeParam exception("It broke.", -7);
    TypeParam other("Something else.", 1);
    other = exception;
    EXPECT_EQ(other.getCode(), -7);
    EXPECT_EQ(other.getMessage(), "It broke.");
    EXPECT_STREQ(other.what(), exception.what());
}

TYPED_TEST(PipeFailure, BeginsItsWhatWithTheText) {
    const TypeParam exception("It broke.");
    EXPECT_EQ(std::string(exception.what()).substr(0, 11), "It broke.: ");
}

TYPED_TEST(PipeFailure, CarriesTheStreamErrorCode) {
    const TypeParam exception("It broke.", 7);
    EXPECT_EQ(exception.code(), std::make_error_code(std::io_errc::stream));
}

TYPED_TEST(PipeFailure, IsCaughtAsItselfAndAsEachOfItsBases) {
    const TypeParam exception("It broke.");
    EXPECT_TRUE(isCaughtAs<TypeParam>(exception));
    EXPECT_TRUE(isCaughtAs<QvPipeException>(exception));
    EXPECT_TRUE(isCaughtAs<std::ios_base::failure>(exception));
    EXPECT_TRUE(isCaughtAs<std::system_error>(exception));
    EXPECT_TRUE(isCaughtAs<std::runtime_error>(exception));
    EXPECT_TRUE(isCaughtAs<std::exception>(exception));
}

TYPED_TEST(PipeFailure, AddsNothingToItsBase) {
    EXPECT_EQ(sizeof(TypeParam), sizeof(QvPipeException));
    EXPECT_TRUE(std::has_virtual_destructor_v<TypeParam>);
}

TYPED_TEST(PipeFailure, KeepsAnyText) {
    const std::string text("two\nlines\0and more", 18);
    TypeParam exception(text);
    EXPECT_EQ(exception.getMessage(), text);
    EXPECT_EQ(TypeParam(std::string()).getMessage(), "");
}

TYPED_TEST(PipeFailure, IsNotBuiltFromTextByConversion) {
    EXPECT_FALSE((std::is_convertible_v<std::string, TypeParam>));
}

TEST(PipeFailures, GiveTextAndCodeOfObjectsThatAreNotConstantAlone) {
    using GetMessage = decltype(&QvPipeException::getMessage);
    using GetCode = decltype(&QvPipeException::getCode);
    EXPECT_TRUE((std::is_invocable_v<GetMessage, QvPipeException&>));
    EXPECT_TRUE((std::is_invocable_v<GetCode, QvPipeException&>));
    EXPECT_FALSE((std::is_invocable_v<GetMessage, const QvPipeException&>));
    EXPECT_FALSE((std::is_invocable_v<GetCode, const QvPipeException&>));
}

TEST(PipeFailures, AreNotCaughtAsOneAnother) {
    EXPECT_FALSE(isCaughtAs<TimeoutException>(QvPipeException("x")));
    EXPECT_FALSE(isCaughtAs<ConnectException>(TimeoutException("x")));
    EXPECT_FALSE(isCaughtAs<BrokenPipeException>(InterruptedException("x")));
    EXPECT_FALSE(isCaughtAs<BindException>(ConnectException("x")));
}

template <typename Exception>
class Mistake : public ::testing::Test {};

using Mistakes = ::testing::Types<IllegalArgumentException, IllegalStateException>;
TYPED_TEST_SUITE(Mistake, Mistakes, );

TYPED_TEST(Mistake, HasNoBaseThatCouldCatchIt) {
    const TypeParam exception("No.", 7);
    EXPECT_TRUE(isCaughtAs<TypeParam>(exception));
    EXPECT_FALSE(isCaughtAs<std::exception>(exception));
    EXPECT_FALSE(isCaughtAs<QvPipeException>(exception));
}

TYPED_TEST(Mistake, CanBeCopiedAndAssigned) {
    EXPECT_TRUE(std::is_copy_constructible_v<TypeParam>);
    EXPECT_TRUE(std::is_copy_assignable_v<TypeParam>);
    EXPECT_TRUE((std::is_constructible_v<TypeParam, const std::string&>));
    EXPECT_TRUE((std::is_constructible_v<TypeParam, const std::string&, int>));
}

TYPED_TEST(Mistake, HasItsDestructorAsAVirtualOperation) {
    EXPECT_TRUE(std::has_virtual_destructor_v<TypeParam>);
}

TEST(Mistakes, AreNotCaughtAsOneAnother) {
    EXPECT_FALSE(isCaughtAs<IllegalStateException>(IllegalArgumentException("x")));
    EXPECT_FALSE(isCaughtAs<IllegalArgumentException>(IllegalStateException("x")));
}

TEST(IllegalStateException, GivesTextAndCodeOfAConstantObject) {
    const IllegalStateException plain("No.");
    EXPECT_EQ(plain.getMessage(), "No.");
    EXPECT_EQ(plain.getCode(), 0);
    const IllegalStateException coded("No.", 7);
    EXPECT_EQ(coded.getCode(), 7);
}

TEST(IllegalStateException, KeepsTextAndCodeInCopies) {
    const IllegalStateException exception("No.", 7);
    const IllegalStateException copy(exception);
    EXPECT_EQ(copy.getMessage(), "No.");
    EXPECT_EQ(copy.getCode(), 7);
    IllegalStateException assigned("Other.");
    assigned = exception;
    EXPECT_EQ(assigned.getMessage(), "No.");
    EXPECT_EQ(assigned.getCode(), 7);
}

}  // namespace
