#include <kestal_ulx/fbmap_update.h>

#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>

#include "fbmap_get.hpp"
#include "fbmap_record.hpp"
#include "fbmap_update.hpp"
#include "list.hpp"
#include "raw_bitmap.hpp"

#include <utility>

namespace {

using namespace kestal;

constexpr const char *source_file = "./source/fbmap_update";

bool is_composed(const kestal_fbmap_t &map)
{
    return has_flag(map, KESTAL_FBMAP_COMPOSED);
}

// Where an area of a map is seen, in the root's coordinates.
struct absolute_region {
    area visible;
    kestal_fbmap_t *root;
    int64_t x; // of the map in the root
    int64_t y;
};

absolute_region absolute_region_of(kestal_fbmap_t &map, const area &part)
{
    absolute_region region{part, &map, 0, 0};
    while (region.root->m_parent != nullptr) {
        const kestal_fbmap_t &inner = *region.root;
        region.root = inner.m_parent;
        region.x += inner.m_x;
        region.y += inner.m_y;
        region.visible = region.visible.moved(inner.m_x, inner.m_y).cut_to(whole_of(region.root->m_bitmap));
    }
    return region;
}

// --- the rectangles of one redraw

struct rectangle_node {
    enum : uint32_t {
        more_layers = 1u,    // to be blended: there are layers above or below
        layer_behind = 2u,   // a map further back has claimed the same rectangle
        layer_in_front = 4u, // the rectangle was claimed behind another, which covers it
    };

    rectangle_node *previous;
    rectangle_node *next;
    uint32_t flags;
    kestal_fbmap_t *owner; // null: nobody yet
    kestal_rectangle_t rectangle;
};

// The redraw of some rectangles of a tree. Maps are asked from the front to the back for what they cover; rectangles
// claimed later stand nearer to the head of the list, so that from the head on it is drawn from the back to the front.
class redraw {
public:
    redraw(kestal_fbmap_t &root, const kestal_fbmap_t &target) : root_(root), target_(target) {}
    ~redraw()
    {
        while (head_ != nullptr)
            drop(head_);
    }
    redraw(const redraw &) = delete;
    redraw &operator=(const redraw &) = delete;

    void add(const kestal_rectangle_t &rectangle) { add_behind(nullptr, {nullptr, nullptr, 0, nullptr, rectangle}); }

    // False when memory ran out on the way: then part of the display is as it was.
    bool run()
    {
        walk(root_.m_child, 0);
        compose();
        return complete_;
    }

private:
    enum : uint32_t { all_owned = 1u, nested = 2u, target_passed = 4u };

    doubly_linked_list list() { return {&head_, nullptr, KESTAL_LINKS(rectangle_node, previous, next)}; }

    void drop(rectangle_node *node)
    {
        list().remove(node);
        kestal_free_tag(node, "__kestal_fbmap_redraw_region_recursive_internal", __LINE__);
    }

    // Adds a copy of `content` behind a node, or, with null, at the head. False when there is no memory for it.
    bool add_behind(rectangle_node *before, const rectangle_node &content)
    {
        auto *node = static_cast<rectangle_node *>(
            kestal_alloc_tag(sizeof(rectangle_node), "__kestal_fbmap_redraw_region_recursive_internal", __LINE__));
        if (node == nullptr) {
            complete_ = false;
            return false;
        }
        *node = content;
        if (before == nullptr || before->next == nullptr)
            before == nullptr ? list().prepend(node) : list().append(node);
        else
            list().insert(before->next, node);
        return true;
    }

    uint32_t walk(kestal_fbmap_t *first, uint32_t flags);
    bool claim(kestal_fbmap_t &map, const area &region, bool passed);
    void give(rectangle_node *node, kestal_fbmap_t &map);

    void compose();
    void draw(const rectangle_node &node);
    bool prepare_composite();
    kestal_raw_bitmap_t composite_bitmap() const;

    kestal_fbmap_t &root_;
    const kestal_fbmap_t &target_;
    rectangle_node *head_ = nullptr;
    bool complete_ = true;
};

// Asks a list of siblings, and what lies below each of them, from the front to the back.
uint32_t redraw::walk(kestal_fbmap_t *first, uint32_t flags)
{
    for (kestal_fbmap_t *map = first; map != nullptr; map = map->m_next) {
        const bool is_target = map == &target_;
        if (map->m_child != nullptr) {
            // The target's children have moved or come with it.
            const uint32_t set_here = (is_target ? nested | target_passed : nested) & ~flags;
            flags |= walk(map->m_child, flags | set_here) & ~set_here;
            if ((flags & all_owned) != 0)
                break;
        }
        if (is_target)
            flags |= target_passed;
        if (has_flag(*map, KESTAL_FBMAP_HIDDEN) || map->m_bitmap.m_pixels == nullptr)
            continue;
        const area region = absolute_region_of(*map, whole_of(map->m_bitmap)).visible;
        if (!region.empty() && !claim(*map, region, (flags & target_passed) != 0))
            return flags | all_owned;
    }
    return flags;
}

// Gives a map what it covers of the rectangles that are not hidden behind an opaque one. False when there are none left.
bool redraw::claim(kestal_fbmap_t &map, const area &region, bool passed)
{
    const bool hides_target = !passed && !is_composed(map);
    const kestal_rectangle_t covering = region.rectangle();
    bool any = false;
    for (rectangle_node *node = head_, *next = nullptr; node != nullptr; node = next) {
        next = node->next;
        if (node->owner != nullptr && !is_composed(*node->owner))
            continue;
        // The rectangle of the last layer stands for those above it, unless all of them go.
        const bool stands_above = (node->flags & rectangle_node::layer_behind) != 0;
        any = any || !stands_above;
        if ((stands_above && !hides_target) || area::of(node->rectangle).cut_to(region).empty())
            continue;
        kestal_rectangle_t overlap;
        kestal_rectangle_t pieces[KESTAL_SEPARATE_PIECES];
        const uint32_t count = kestal_sep_overlap_window(&node->rectangle, &covering, &overlap, pieces);
        for (uint32_t i = 0; i < count; ++i)
            add_behind(node, {nullptr, nullptr, node->flags, node->owner, pieces[i]});
        node->rectangle = overlap;
        if (hides_target)
            drop(node);
        else
            give(node, map);
    }
    return any;
}

// Makes a map the owner of a rectangle, or of a second one where a translucent map in front of it keeps the first.
void redraw::give(rectangle_node *node, kestal_fbmap_t &map)
{
    if (is_composed(map))
        node->flags |= rectangle_node::more_layers;
    if (node->owner == nullptr) {
        node->owner = &map;
        list().remove(node);
        list().prepend(node);
        return;
    }
    if (add_behind(nullptr, {nullptr, nullptr, node->flags | rectangle_node::layer_in_front, &map, node->rectangle}))
        node->flags |= rectangle_node::layer_behind;
}

// Draws from the back to the front: alone what is opaque, layer by layer in the composite buffer what is not.
void redraw::compose()
{
    for (; head_ != nullptr; drop(head_))
        if (head_->owner != nullptr)
            draw(*head_);
}

void redraw::draw(const rectangle_node &node)
{
    const kestal_rectangle_t &rectangle = node.rectangle;
    const bool composes = (node.flags & rectangle_node::more_layers) != 0;
    if (composes && !prepare_composite()) {
        complete_ = false;
        return;
    }
    const kestal_raw_bitmap_t target = composes ? composite_bitmap() : root_.m_bitmap;
    if (composes && is_composed(*node.owner) && (node.flags & rectangle_node::layer_behind) == 0)
        kestal_copy_raw_bitmap(&target, &root_.m_bitmap, rectangle.m_x, rectangle.m_y, &rectangle);

    const absolute_region owner = absolute_region_of(*node.owner, {});
    const kestal_rectangle_t local = area::of(rectangle).moved(-owner.x, -owner.y).rectangle();
    get_box_operation.run(*node.owner, &target, rectangle.m_x, rectangle.m_y, &local, composes ? 1 : 0);
    if ((node.flags & rectangle_node::layer_in_front) != 0)
        return;
    // The last layer: what is composed goes to the root while it is at hand.
    if (composes)
        get_box_operation.run(root_, nullptr, rectangle.m_x, rectangle.m_y, &rectangle, 0);
    note_change(root_, area::of(rectangle));
}

bool redraw::prepare_composite()
{
    if (root_.m_bitmap.m_color_interface == 0) {
        kestal_assert_fail_tag(source_file, __func__, __LINE__, "master-fbmap's color-interface not defined !");
        return false;
    }
    if (root_.m_composite != nullptr)
        return true;
    root_.m_composite = kestal_alloc_tag(root_.m_bitmap.m_line_length * root_.m_bitmap.m_height,
                                         "__kestal_fbmap_redraw_region_recursive_internal", __LINE__);
    if (root_.m_composite == nullptr) {
        kestal_assert_fail_tag(source_file, __func__, __LINE__, "not enough memory ! (for composite_map)");
        return false;
    }
    if (has_flag(root_, KESTAL_FBMAP_DEBUG))
        kestal_error_puts("fbmap: [DEBUG] composite map allocated.\n");
    return true;
}

kestal_raw_bitmap_t redraw::composite_bitmap() const
{
    kestal_raw_bitmap_t bitmap = root_.m_bitmap;
    bitmap.m_pixels = root_.m_composite;
    return bitmap;
}

// --- redraw with transfer

int32_t transfer_nothing(kestal_fbmap_t *)
{
    return 0;
}

constexpr fbmap_operation transfer_operation(source_file, &kestal_fbmap_operations_t::m_transfer, kestal_fbmap_transfer,
                                             transfer_nothing);

int32_t transfer(kestal_fbmap_t &map)
{
    const int32_t result = transfer_operation.run(map);
    if (result == 0)
        map.m_update = {};
    return result;
}

// Redraws where an area of the map is seen now, and another area of the root, and transfers.
int32_t redraw_with_transfer(kestal_fbmap_t &map, const area &part, const kestal_rectangle_t &uncovered)
{
    const absolute_region region = absolute_region_of(map, part);
    const kestal_rectangle_t visible = region.visible.rectangle();
    kestal_rectangle_t pieces[KESTAL_SEPARATE_PIECES];
    const uint32_t count = kestal_sep_overlap_window(&uncovered, &visible, nullptr, pieces);
    if (visible.m_width == 0 && count == 0)
        return 0;
    map.m_update = {};

    redraw job(*region.root, map);
    if (visible.m_width != 0)
        job.add(visible);
    for (uint32_t i = 0; i < count; ++i)
        job.add(pieces[i]);
    const bool complete = job.run();
    return transfer(*region.root) == 0 && complete ? 0 : -1;
}

int32_t redraw_all_of(kestal_fbmap_t &map)
{
    map.m_update = whole_of(map.m_bitmap).rectangle();
    return redraw_with_transfer(map, whole_of(map.m_bitmap), {});
}

int32_t show(kestal_fbmap_t &map)
{
    if (!has_flag(map, KESTAL_FBMAP_HIDDEN) || map.m_parent == nullptr)
        return 0;
    map.m_flags &= ~KESTAL_FBMAP_HIDDEN;
    return redraw_all_of(map);
}

// --- resize

// Pixels of the map's own in another size, with those that both sizes have. False when memory is short.
bool replace_pixels(kestal_fbmap_t &map, uint32_t width, uint32_t height)
{
    kestal_raw_bitmap_t bitmap = map.m_bitmap;
    bitmap.m_width = width;
    bitmap.m_height = height;
    bitmap.m_line_length = uint64_t{map.m_bits_per_pixel} * width / 8;
    if (__builtin_mul_overflow(bitmap.m_line_length, uint64_t{height}, &bitmap.m_size))
        return false;
    if (map.m_bitmap.m_pixels != nullptr) {
        constexpr const char *tag = "__kestal_fbmap_resize_internal";
        bitmap.m_pixels = kestal_calloc_tag(1, bitmap.m_size, tag, __LINE__);
        if (bitmap.m_pixels == nullptr)
            return false;
        kestal_copy_raw_bitmap(&bitmap, &map.m_bitmap, 0, 0, nullptr);
        if (has_flag(map, KESTAL_FBMAP_OWN_MEMORY))
            kestal_free_tag(map.m_bitmap.m_pixels, tag, __LINE__);
        map.m_flags |= KESTAL_FBMAP_OWN_MEMORY;
    }
    map.m_bitmap = bitmap;
    // What is not seen is not redrawn, and so its changes stay noted.
    map.m_update = area::of(map.m_update).cut_to(whole_of(bitmap)).rectangle();
    return true;
}

int32_t resize(kestal_fbmap_t &map, int32_t x, int32_t y, uint32_t width, uint32_t height)
{
    const bool same_size = width == map.m_bitmap.m_width && height == map.m_bitmap.m_height;
    if (map.m_parent == nullptr || (same_size && x == map.m_x && y == map.m_y))
        return 0;
    const kestal_rectangle_t before = absolute_region_of(map, whole_of(map.m_bitmap)).visible.rectangle();
    if (!same_size && !replace_pixels(map, width, height))
        return -1;
    map.m_x = x;
    map.m_y = y;
    return redraw_with_transfer(map, whole_of(map.m_bitmap), before);
}

} // namespace

int32_t kestal::update_fbmap(kestal_fbmap_t &map)
{
    if (area::of(map.m_update).empty())
        return 0;
    if (map.m_parent == nullptr)
        return transfer(map);
    return redraw_with_transfer(map, area::of(map.m_update), {});
}

int32_t kestal::hide_fbmap(kestal_fbmap_t &map)
{
    if (has_flag(map, KESTAL_FBMAP_HIDDEN) || map.m_parent == nullptr)
        return 0;
    map.m_flags |= KESTAL_FBMAP_HIDDEN;
    return redraw_all_of(map);
}

int32_t kestal_fbmap_show(kestal_fbmap_t *map)
{
    return on_fbmap(map, source_file, -1, [&] { return show(*map); });
}

int32_t kestal_fbmap_hide(kestal_fbmap_t *map)
{
    return on_fbmap(map, source_file, -1, [&] { return hide_fbmap(*map); });
}

int32_t kestal_fbmap_move(kestal_fbmap_t *map, int32_t x, int32_t y)
{
    return on_fbmap(map, source_file, -1,
                    [&] { return resize(*map, x, y, map->m_bitmap.m_width, map->m_bitmap.m_height); });
}

int32_t kestal_fbmap_resize(kestal_fbmap_t *map, int32_t x, int32_t y, uint32_t width, uint32_t height)
{
    return on_fbmap(map, source_file, -1, [&] { return resize(*map, x, y, width, height); });
}

int32_t kestal_fbmap_update(kestal_fbmap_t *map)
{
    return on_fbmap(map, source_file, -1, [&] { return update_fbmap(*map); });
}

int32_t kestal_fbmap_transfer(kestal_fbmap_t *map)
{
    return on_fbmap(map, source_file, -1, [&] { return transfer(*map); });
}
