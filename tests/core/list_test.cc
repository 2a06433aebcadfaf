// Proves that the intrusive list behaves as a std::list does.
#include "core/list.h"

#include <list>

#include "tests/support/testing.h"

namespace {

struct element : list_link {};

std::vector<element*> walk(list_head<element>& list) {
    std::vector<element*> found;
    for (element& e : list) {
        found.push_back(&e);
    }
    return found;
}

TEST(list, agrees_with_std_list_on_random_operations) {
    std::mt19937 random(7);
    std::array<element, 16> elements;
    list_head<element> list;
    std::list<element*> model;
    for (int i = 0; i < 5000; ++i) {
        element* e = &elements[random() % elements.size()];
        const auto at = std::find(model.begin(), model.end(), e);
        ASSERT_EQ(e->alone(), at == model.end());
        if (at != model.end()) {
            e->unlink();
            model.erase(at);
        } else if (random() % 2 == 0) {
            list.push_front(e);
            model.push_front(e);
        } else {
            list.push_back(e);
            model.push_back(e);
        }
        ASSERT_EQ(walk(list), (std::vector<element*>{model.begin(), model.end()}));
        ASSERT_EQ(list.empty(), model.empty());
        ASSERT_EQ(list.first(), model.empty() ? nullptr : model.front());
    }
    std::vector<element*> freed;
    list.free_all([&](element* e) {
        EXPECT_TRUE(e->alone());
        freed.push_back(e);
    });
    EXPECT_EQ(freed, (std::vector<element*>{model.begin(), model.end()}));
    EXPECT_TRUE(list.empty());
}

}  // namespace
