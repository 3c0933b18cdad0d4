// The public forwarder: every operation that returns a status leaves the same
// status in GetStat (ForceImageValidation alone keeps the stored one), and
// nothing thrown inside an operation escapes it.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "kestrelyn/Imaging.h"

namespace kestrelyn::test {
namespace {

// Calls an operation with a value-initialised argument of each parameter type
// (0, "", empty arrays, null handles).
template <typename R, typename... A>
R CallWithBlankArguments(Imaging& img, R (Imaging::*fn)(A...)) {
    std::tuple<std::remove_cvref_t<A>...> args{};
    return std::apply([&](auto&... a) -> R { return (img.*fn)(a...); }, args);
}

struct StatusOperation {
    std::string sName;
    std::function<KestrelynStatus(Imaging&)> call;
};

template <typename R, typename... A>
void Collect(std::vector<StatusOperation>& out, const char* sName, R (Imaging::*fn)(A...)) {
    if constexpr (std::is_same_v<R, KestrelynStatus>)
        out.push_back({sName, [fn](Imaging& img) { return CallWithBlankArguments(img, fn); }});
}

std::vector<StatusOperation> StatusOperations() {
    std::vector<StatusOperation> out;
#define KY_DEFAULT(value)
#define KY_OP(ret, name, params, args) Collect(out, #name, &Imaging::name);
#include "kestrelyn/ops/all.inc"
#undef KY_OP
#undef KY_DEFAULT
    return out;
}

TEST(Forwarder, EveryReturnedStatusIsTheStoredStatus) {
    const std::vector<StatusOperation> ops = StatusOperations();
    ASSERT_GT(ops.size(), 100u); // the lists were read
    int nChecked = 0;
    for (const StatusOperation& op : ops) {
        SCOPED_TRACE(op.sName);
        Imaging img;
        // A known earlier status that no blank call can produce by accident.
        img.CreateImageFromFile("/nonexistent/kestrelyn/forwarder.png");
        ASSERT_EQ(img.GetStat(), FileNotFound);
        const KestrelynStatus returned = op.call(img);
        if (op.sName == "ForceImageValidation") {
            EXPECT_EQ(returned, OK);
            EXPECT_EQ(img.GetStat(), FileNotFound);
        } else if (op.sName != "GetStat") {
            EXPECT_EQ(img.GetStat(), returned);
        }
        ++nChecked;
    }
    EXPECT_EQ(nChecked, static_cast<int>(ops.size()));
}

TEST(Forwarder, AnOperationOnAnImageKeepsReturnAndStatusTogether) {
    Imaging img;
    ASSERT_NE(img.CreateNewImage(8, 8, 24, -1), 0);
    EXPECT_EQ(img.FxBlur(), OK);
    EXPECT_EQ(img.GetStat(), OK);
    const KestrelynStatus failed = img.SetHorizontalResolution(150.0f, 424242);
    EXPECT_EQ(failed, InvalidParameter);
    EXPECT_EQ(img.GetStat(), failed);
    EXPECT_EQ(img.ForceImageValidation(0), OK);
    EXPECT_NE(img.GetStat(), OK); // left as the failed call stored it
}

} // namespace
} // namespace kestrelyn::test
