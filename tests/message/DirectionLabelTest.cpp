#include "message/DirectionLabel.h"

#include <gtest/gtest.h>

namespace {

namespace DirectionLabel = Quovane::Internal::Qvtp::DirectionLabel;

TEST(DirectionLabel, NamesTheFourKindsOfMessageInNineCharacters) {
    EXPECT_EQ(DirectionLabel::ACCEPT, "Accept:  ");
    EXPECT_EQ(DirectionLabel::RECEIVE, "Receive: ");
    EXPECT_EQ(DirectionLabel::REPLY, "Reply:   ");
    EXPECT_EQ(DirectionLabel::SEND, "Send:    ");
}

}  // namespace
