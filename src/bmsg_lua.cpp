// The Lua module "bmsg": messager objects that wrap a bMSG::Messager, and
// subscriptions (bMSG::Subscription) whose threads queue messages for the
// script's callbacks, delivered when the script calls check.
//
// Where the module departs from its first behaviour:
// - A text given to a sender or to publish is one argument, byte for byte
//   (blanks, '%' and zero bytes included); it is no longer a format.
// - Every messager has error replies on, and the senders, publish, the
//   receivers and the counts say when the server refused them: nil plus the
//   server's text. Senders return true, publish the number of subscribers.
// - subscribe returns once the server has confirmed the subscription, so
//   whatever is published after it is delivered; otherwise nil and why.
// - unsubscribe returns at once, without waiting for another message.
// Added: bmsg.report_to chooses where the library's reports go.
#include "bmessager.h"
#include "breport.h"
#include "bsubscription.h"

#include "bmsg_internal.h"

#include <lua.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using bMSG::Messager;

const char* const messager_type = "bmsg.messager";
constexpr uint64_t sub_magic = 0x12345678;
constexpr int recv_buffer_size = 10240;
constexpr int default_recv_timeout = 1000;

int fail(lua_State* L, const char* message)
{
    lua_pushnil(L);
    lua_pushstring(L, message);
    return 2;
}

// nil and the reason of a failed Messager operation: the server's text for
// a refusal, else a short text for the code.
int fail_code(lua_State* L, const Messager* m, int rc)
{
    switch (rc) {
    case -4:
        return fail(L, m->last_error().c_str());
    case -1:
        return fail(L, "no connection");
    case -2:
    case -3:
        return fail(L, "no reply");
    case -5:
        return fail(L, "value too long for the buffer");
    case -6:
        return fail(L, "reply is not a string");
    default:
        return fail(L, "failed");
    }
}

// The Messager of the messager object in argument 1 (a Lua error for any
// other value); null once the object has been finalised.
Messager* self(lua_State* L)
{
    return *static_cast<Messager**>(luaL_checkudata(L, 1, messager_type));
}

int push_reply_element(lua_State* L, const redisReply* r)
{
    if (r->type == REDIS_REPLY_STRING)
        lua_pushlstring(L, r->str, r->len);
    else if (r->type == REDIS_REPLY_INTEGER)
        lua_pushinteger(L, static_cast<lua_Integer>(r->integer));
    else
        return 0;
    return 1;
}

// Converts one reply of GET into the results of messager:get.
int push_reply(lua_State* L, const redisReply* r)
{
    switch (r->type) {
    case REDIS_REPLY_STRING:
        lua_pushlstring(L, r->str, r->len);
        return 1;
    case REDIS_REPLY_INTEGER:
        lua_pushinteger(L, static_cast<lua_Integer>(r->integer));
        return 1;
    case REDIS_REPLY_NIL:
        lua_pushnil(L);
        return 1;
    case REDIS_REPLY_STATUS:
        lua_pushstring(L, r->str);
        return 1;
    case REDIS_REPLY_ERROR:
        lua_pushnil(L);
        lua_pushlstring(L, r->str, r->len);
        return 2;
#ifdef REDIS_REPLY_DOUBLE
    case REDIS_REPLY_DOUBLE:
        lua_pushnumber(L, r->dval);
        return 1;
#endif
    case REDIS_REPLY_ARRAY:
        lua_createtable(L, static_cast<int>(r->elements), 0);
        // Elements of other types leave holes.
        for (size_t i = 0; i < r->elements; ++i)
            if (push_reply_element(L, r->element[i]))
                lua_rawseti(L, -2, static_cast<int>(i + 1));
        return 1;
    default:
        return fail(L, "Unknown Redis reply type");
    }
}

// A whole number taken into the int range, saturating at its limits.
int saturate_int(double d)
{
    if (d >= 2147483647.0)
        return INT32_MAX;
    if (d <= -2147483648.0)
        return INT32_MIN;
    return static_cast<int>(d);
}

// Pops one value of `key`: the string; a lone nil when the list was empty
// or the value was empty; nil and the reason on failure (a value too long
// for the buffer is gone from the list then).
int push_popped(lua_State* L, Messager* m, const char* key, int timeout)
{
    char buffer[recv_buffer_size];
    const int n = m->list_recv(key, buffer, sizeof buffer, timeout, nullptr, 0);
    if (n < 0)
        return fail_code(L, m, n);
    if (n == 0)
        lua_pushnil(L);
    else
        lua_pushlstring(L, buffer, static_cast<size_t>(n));
    return 1;
}

using Sender = int (Messager::*)(const char*, ...);
using ListKey = const char* const Messager::*;

// The Lua string in argument 2 goes out as one raw argument ("%b"), so
// nothing in it is read as a format or splits it. True, or with `counts`
// (system_publish) the number of subscribers reached.
int send_method(lua_State* L, Sender send, bool counts = false)
{
    Messager* m = self(L);
    if (!m)
        return fail(L, "messager is NULL");
    size_t len = 0;
    const char* text = luaL_checklstring(L, 2, &len);
    const int rc = (m->*send)("%b", text, len);
    if (rc < 0)
        return fail_code(L, m, rc);
    if (counts)
        lua_pushinteger(L, rc);
    else
        lua_pushboolean(L, 1);
    return 1;
}

// The *_recv methods: the timeout is taken only when it is the one argument
// after self; otherwise the default applies.
int recv_method(lua_State* L, ListKey key)
{
    Messager* m = self(L);
    if (!m)
        return fail(L, "messager is NULL");
    int timeout = default_recv_timeout;
    if (lua_gettop(L) == 2)
        timeout = static_cast<int>(luaL_checkinteger(L, 2));
    return push_popped(L, m, m->*key, timeout);
}

// The *_size methods and bio_cmd_clear: the count as a Lua integer, the
// other codes too (-1, -3); a refusal is nil and the server's text, so it
// never reads as an empty list.
int count_method(lua_State* L, int (Messager::*count)(const char*), ListKey key)
{
    Messager* m = self(L);
    if (!m)
        return fail(L, "messager is NULL");
    const int n = (m->*count)(m->*key);
    if (n == -4)
        return fail_code(L, m, n);
    lua_pushinteger(L, n);
    return 1;
}

// ---- Subscriptions -------------------------------------------------------

struct Message {
    std::string channel;
    std::string payload;
};

// What a handle points at. The subscription's thread only appends to the
// queue; check and unsubscribe run on the script's thread.
struct sub_data {
    uint64_t magic = sub_magic;
    std::deque<Message> queue;
    std::mutex mutex;  // guards queue and ended
    bool ended = false;  // "exit" came: nothing after it is queued
    int callback_ref = LUA_NOREF;
    std::unique_ptr<bMSG::Subscription> subscription;

    // Runs on the subscription's thread.
    void receive(const char* channel, const char* payload, size_t len)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (ended)
            return;
        queue.push_back(Message{channel, std::string(payload, len)});
        ended = queue.back().payload == "exit";
    }
};

// Records of the live subscriptions. A handle is a bare address that a
// script may keep after unsubscribe; looking it up here before reading
// anything through it turns a stale or foreign handle into an error result.
struct Registry {
    std::mutex mutex;
    std::set<const void*> live;
};

Registry& registry()
{
    static Registry r;
    return r;
}

bool is_live(const void* p)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.live.count(p) != 0;
}

void set_live(const void* p, bool live)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (live)
        r.live.insert(p);
    else
        r.live.erase(p);
}

// The record behind the handle in argument 1, or null with the reason.
sub_data* handle_arg(lua_State* L, const char*& error)
{
    void* p = lua_touserdata(L, 1);
    if (!p) {
        error = "sub_data is NULL";
        return nullptr;
    }
    if (!is_live(p) || static_cast<sub_data*>(p)->magic != sub_magic) {
        error = "sub_data is invalid";
        return nullptr;
    }
    return static_cast<sub_data*>(p);
}

void report_callback_error(lua_State* L)
{
    const char* text = lua_tostring(L, -1);
    BMSG_REPORT("messager_check", "Lua callback error: %s",
                text ? text : "(error object is not a string)");
}

// ---- Methods ---------------------------------------------------------------

int messager_get(lua_State* L)
{
    Messager* m = self(L);
    if (!m)
        return fail(L, "messager is NULL");
    const char* key = luaL_checklstring(L, 2, nullptr);
    redisContext* c = m->redis_context();
    if (!c)
        return fail(L, "redis connection is NULL");
    const bMSG::ReplyBound bound(c, bMSG::max_data_reply_elements);
    bMSG::Reply r = bMSG::command(c, "GET %s", key);
    if (!r)
        return fail(L, "redis reply is NULL");
    return push_reply(L, r.get());
}

// Integral numbers are stored through the int overload, other numbers
// (NaN included) through the float one, anything else as text. Returns the
// top of the stack, i.e. the value argument, whatever the write gave.
int messager_set(lua_State* L)
{
    Messager* m = self(L);
    if (!m)
        return fail(L, "messager is NULL");
    const char* key = luaL_checklstring(L, 2, nullptr);
    if (!*key)
        return fail(L, "key is empty");
    if (!lua_isnumber(L, 3)) {
        m->set(key, luaL_checklstring(L, 3, nullptr));
        return 1;
    }
    const double d = lua_tonumber(L, 3);
    if (std::floor(d) == d)
        m->set(key, saturate_int(d));
    else
        m->set(key, static_cast<float>(d));
    return 1;
}

// publish(channel, text): the text as one raw argument, as the senders.
int messager_publish(lua_State* L)
{
    Messager* m = self(L);
    if (!m)
        return fail(L, "messager is NULL");
    const char* channel = luaL_checklstring(L, 2, nullptr);
    size_t len = 0;
    const char* text = luaL_checklstring(L, 3, &len);
    const int rc = m->publish(channel, "%b", text, len);
    if (rc < 0)
        return fail_code(L, m, rc);
    lua_pushinteger(L, rc);
    return 1;
}

// The handle is returned only once the server has confirmed the
// subscription, so a message published after this returns is delivered.
// On failure nothing is left behind: no thread, no callback reference.
int messager_subscribe(lua_State* L)
{
    Messager* m = self(L);
    if (!m)
        return fail(L, "messager is NULL");
    const char* channel = luaL_checklstring(L, 2, nullptr);
    if (lua_type(L, 3) != LUA_TFUNCTION)
        return fail(L, "callback is not a function");

    auto sub = std::make_unique<sub_data>();
    sub_data* target = sub.get();
    try {
        sub->subscription = std::make_unique<bMSG::Subscription>(
            *m, std::vector<std::string>{channel},
            [target](const char* from, const char* payload, size_t len, void*) {
                target->receive(from, payload, len);
            });
    } catch (const std::exception&) {
        return fail(L, "can't start subscription thread");
    }
    const bMSG::Subscription& s = *sub->subscription;
    if (s.status() != 0) {
        if (!s.last_error().empty())
            return fail(L, s.last_error().c_str());
        return fail(L, s.status() == -1 ? "no connection" : "no reply");
    }
    lua_pushvalue(L, 3);
    sub->callback_ref = luaL_ref(L, LUA_REGISTRYINDEX);
    set_live(sub.get(), true);
    lua_pushlightuserdata(L, sub.release());
    return 1;
}

// Returns at once: stopping wakes the subscription's thread without waiting
// for a message. Messages not yet delivered are dropped.
int messager_unsubscribe(lua_State* L)
{
    const char* error = nullptr;
    sub_data* sub = handle_arg(L, error);
    if (!sub)
        return fail(L, error);
    set_live(sub, false);
    sub->subscription->stop();
    luaL_unref(L, LUA_REGISTRYINDEX, sub->callback_ref);
    delete sub;
    lua_pushboolean(L, 1);
    return 1;
}

int messager_device_cmd_send(lua_State* L)
{
    return send_method(L, &Messager::device_cmd_send);
}

int messager_bio_cmd_send(lua_State* L)
{
    return send_method(L, &Messager::bio_cmd_send);
}

int messager_bio_cmd_recv(lua_State* L)
{
    return recv_method(L, &Messager::bio_cmd);
}

int messager_bio_cmd_size(lua_State* L)
{
    return count_method(L, &Messager::list_size, &Messager::bio_cmd);
}

int messager_bio_cmd_clear(lua_State* L)
{
    return count_method(L, &Messager::list_clear, &Messager::bio_cmd);
}

int messager_bio_info_send(lua_State* L)
{
    return send_method(L, &Messager::bio_info_send);
}

int messager_bio_info_recv(lua_State* L)
{
    return recv_method(L, &Messager::bio_info);
}

int messager_bio_info_size(lua_State* L)
{
    return count_method(L, &Messager::list_size, &Messager::bio_info);
}

int messager_bio_resp_send(lua_State* L)
{
    return send_method(L, &Messager::bio_resp_send);
}

int messager_bio_resp_recv(lua_State* L)
{
    return recv_method(L, &Messager::bio_resp);
}

int messager_bio_resp_size(lua_State* L)
{
    return count_method(L, &Messager::list_size, &Messager::bio_resp);
}

int messager_system_publish(lua_State* L)
{
    return send_method(L, &Messager::system_publish, true);
}

// Takes everything queued so far and calls the callback once per message,
// in arrival order, without holding the lock. A failing callback is
// reported and the next message is still delivered.
int messager_check(lua_State* L)
{
    const char* error = nullptr;
    sub_data* sub = handle_arg(L, error);
    if (!sub)
        return fail(L, error);
    std::deque<Message> pending;
    {
        std::lock_guard<std::mutex> lock(sub->mutex);
        pending.swap(sub->queue);
    }
    for (; !pending.empty(); pending.pop_front()) {
        // A callback may have unsubscribed this very handle.
        if (!is_live(sub))
            break;
        const Message& msg = pending.front();
        lua_rawgeti(L, LUA_REGISTRYINDEX, sub->callback_ref);
        lua_pushlstring(L, msg.channel.data(), msg.channel.size());
        lua_pushlstring(L, msg.payload.data(), msg.payload.size());
        if (lua_pcall(L, 2, 0, 0) != 0) {
            report_callback_error(L);
            lua_pop(L, 1);
        }
    }
    return 0;
}

// new(address, port, attempts [, user [, password]]): with a user or a
// password, every connection of the messager and of its subscriptions logs
// in (Messager's login constructor).
int messager_new(lua_State* L)
{
    const char* address = luaL_checklstring(L, 1, nullptr);
    const auto port = static_cast<uint16_t>(luaL_checkinteger(L, 2));
    const auto attempts = static_cast<int>(luaL_checkinteger(L, 3));
    // Optional login: nil (or absent) for either is a null pointer.
    const char* user = luaL_optlstring(L, 4, nullptr, nullptr);
    const char* password = luaL_optlstring(L, 5, nullptr, nullptr);
    auto** slot = static_cast<Messager**>(lua_newuserdata(L, sizeof(Messager*)));
    *slot = nullptr;
    *slot = new Messager(address, port, attempts, user, password);
    // No refusal may read as a success.
    (*slot)->set_error_replies(true);
    luaL_getmetatable(L, messager_type);
    lua_setmetatable(L, -2);
    return 1;
}

// Frees the Messager; its subscriptions keep running. The slot is cleared
// so that an object reached after finalisation answers "messager is NULL".
int messager_gc(lua_State* L)
{
    auto** slot = static_cast<Messager**>(luaL_checkudata(L, 1, messager_type));
    delete *slot;
    *slot = nullptr;
    return 0;
}

// bmsg.report_to(route): where the process's reports go from now on:
// "journal" (one line on stderr, with its level when stderr is the journal),
// "syslog", or "default" (the library's two-stream form). Process-wide, as
// the library's handler is; a Lua function cannot be one, since reports
// also come from the subscriptions' threads. true, or nil and why.
int report_to(lua_State* L)
{
    static const char* const routes[] = {"default", "journal", "syslog", nullptr};
    static const bMSG::ReportHandler handlers[] = {nullptr, bMSG::report_to_journal,
                                                   bMSG::report_to_syslog};
    const char* route = luaL_checkstring(L, 1);
    for (int i = 0; routes[i]; ++i)
        if (strcmp(route, routes[i]) == 0) {
            bMSG::set_report_handler(handlers[i]);
            lua_pushboolean(L, 1);
            return 1;
        }
    return fail(L, "unknown route: use \"default\", \"journal\" or \"syslog\"");
}

const luaL_Reg messager_meta[] = {
    {"__gc", messager_gc},
    {nullptr, nullptr},
};

const luaL_Reg messager_methods[] = {
    {"get", messager_get},
    {"set", messager_set},
    {"publish", messager_publish},
    {"subscribe", messager_subscribe},
    {"unsubscribe", messager_unsubscribe},
    {"device_cmd_send", messager_device_cmd_send},
    {"bio_cmd_send", messager_bio_cmd_send},
    {"bio_cmd_recv", messager_bio_cmd_recv},
    {"bio_cmd_size", messager_bio_cmd_size},
    {"bio_cmd_clear", messager_bio_cmd_clear},
    {"bio_info_send", messager_bio_info_send},
    {"bio_info_recv", messager_bio_info_recv},
    {"bio_info_size", messager_bio_info_size},
    {"bio_resp_send", messager_bio_resp_send},
    {"bio_resp_recv", messager_bio_resp_recv},
    {"bio_resp_size", messager_bio_resp_size},
    {"system_publish", messager_system_publish},
    {"check", messager_check},
    {nullptr, nullptr},
};

} // namespace

// Module entry for require "bmsg": returns { messager = { new = ... },
// report_to = ... } and registers the metatable "bmsg.messager".
extern "C" BMSG_API int luaopen_bmsg(lua_State* L)
{
    luaL_newmetatable(L, messager_type);
    luaL_setfuncs(L, messager_meta, 0);
    lua_newtable(L);
    luaL_setfuncs(L, messager_methods, 0);
    lua_setfield(L, -2, "__index");

    lua_newtable(L);
    lua_newtable(L);
    lua_pushcfunction(L, messager_new);
    lua_setfield(L, -2, "new");
    lua_setfield(L, -2, "messager");
    lua_pushcfunction(L, report_to);
    lua_setfield(L, -2, "report_to");
    return 1;
}
