// Walks a CTF trace by the C interface of babeltrace2, and looks at the time and the function of each event.
//
//     Babeltrace read EVENTS DIRECTORY

#include "bench/peers/Work.h"

#include <babeltrace2/babeltrace.h>
#include <cstdint>

namespace {

struct Sink {
    unsigned events = 0;
    std::uint64_t sum = 0;
};

void take(Sink& sink, const bt_message* message) {
    if (bt_message_get_type(message) != BT_MESSAGE_TYPE_EVENT)
        return;
    const bt_event* event = bt_message_event_borrow_event_const(message);
    const bt_field* payload = bt_event_borrow_payload_field_const(event);
    sink.sum += bt_clock_snapshot_get_value(bt_message_event_borrow_default_clock_snapshot_const(message));
    sink.sum += bt_field_integer_unsigned_get_value(bt_field_structure_borrow_member_field_by_index_const(payload, 0));
    ++sink.events;
}

bt_graph_simple_sink_component_consume_func_status consume(bt_message_iterator* iterator, void* data) {
    Sink& sink = *static_cast<Sink*>(data);
    bt_message_array_const messages = nullptr;
    std::uint64_t count = 0;
    switch (bt_message_iterator_next(iterator, &messages, &count)) {
    case BT_MESSAGE_ITERATOR_NEXT_STATUS_OK:
        break;
    case BT_MESSAGE_ITERATOR_NEXT_STATUS_END:
        return BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_END;
    default:
        return BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_ERROR;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        take(sink, messages[i]);
        bt_message_put_ref(messages[i]);
    }
    return BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_OK;
}

unsigned read(const char* directory) {
    const bt_plugin* plugin = nullptr;
    bt_plugin_find("ctf", BT_TRUE, BT_TRUE, BT_TRUE, BT_TRUE, BT_TRUE, &plugin);
    bt_value* parameters = bt_value_map_create();
    bt_value* inputs = nullptr;
    bt_value_map_insert_empty_array_entry(parameters, "inputs", &inputs);
    bt_value_array_append_string_element(inputs, directory);

    Sink sink;
    bt_graph* graph = bt_graph_create(0);
    const bt_component_source* source = nullptr;
    const bt_component_sink* end = nullptr;
    bt_graph_add_source_component(graph, bt_plugin_borrow_source_component_class_by_name_const(plugin, "fs"), "trace",
                                  parameters, BT_LOGGING_LEVEL_NONE, &source);
    bt_graph_add_simple_sink_component(graph, "events", nullptr, consume, nullptr, &sink, &end);
    bt_graph_connect_ports(graph, bt_component_source_borrow_output_port_by_index_const(source, 0),
                           bt_component_sink_borrow_input_port_by_index_const(end, 0), nullptr);
    bt_graph_run(graph);
    bt_graph_put_ref(graph);
    bt_value_put_ref(parameters);
    bt_plugin_put_ref(plugin);
    return sink.events;
}

} // namespace

int main(int, char** argv) {
    return measure(eventsOf(argv), [&] { return read(argv[3]); });
}
