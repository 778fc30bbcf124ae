"""What labgrid's coordinator, exporters and clients connect to, on a free port of this machine.

Labs use crossbar for that, which Debian does not have. This is as much of WAMP as labgrid needs,
and lets anybody do anything.
"""

import asyncio
import itertools

from autobahn.asyncio.websocket import WampWebSocketServerFactory
from autobahn.wamp import message, role
from autobahn.wamp.serializer import JsonSerializer

ROLES = {
    "broker": role.RoleBrokerFeatures(),
    "dealer": role.RoleDealerFeatures(caller_identification=True),
}
IDS = itertools.count(1)


class Router:
    """Who subscribes to what, who does what, and which calls are running."""

    def __init__(self):
        self.topics = {}  # topic: (subscription, sessions)
        self.procedures = {}  # procedure: (registration, session)
        self.calls = {}  # invocation: (session, its request)

    def publish(self, topic, publisher, args, kwargs=None):
        subscription, subscribers = self.topics.get(topic, (None, ()))
        for session in subscribers:
            if session is not publisher:
                session.send(message.Event(subscription, next(IDS), args, kwargs))

    def leave(self, session):
        for _, subscribers in self.topics.values():
            subscribers.discard(session)
        self.procedures = {
            name: entry for name, entry in self.procedures.items() if entry[1] is not session
        }
        self.publish("wamp.session.on_leave", session, [session.number])


class Session:
    """One connection."""

    _authid = _session_id = None  # the transport logs them

    def __init__(self, router):
        self.router = router
        self.number = next(IDS)
        self.is_member = False

    def onOpen(self, transport):
        self.transport = transport

    def onClose(self, was_clean):
        if self.is_member:
            self.router.leave(self)

    def send(self, answer):
        if self.transport.isOpen():
            self.transport.send(answer)

    def onMessage(self, received):
        getattr(self, "on_" + type(received).__name__.lower())(received)

    def on_hello(self, hello):
        self.realm, self.name = hello.realm, hello.authid
        self.send(message.Challenge("ticket"))

    def on_authenticate(self, _):
        self.is_member = True
        self.send(
            message.Welcome(
                self.number, ROLES, self.realm, self.name, "public", "ticket", "dynamic"
            )
        )
        details = {"session": self.number, "authid": self.name}
        self.router.publish("wamp.session.on_join", self, [details])

    def on_goodbye(self, _):
        self.send(message.Goodbye())

    def on_subscribe(self, subscribe):
        topic = self.router.topics.setdefault(subscribe.topic, (next(IDS), set()))
        topic[1].add(self)
        self.send(message.Subscribed(subscribe.request, topic[0]))

    def on_publish(self, publish):
        self.router.publish(publish.topic, self, publish.args, publish.kwargs)

    def on_register(self, register):
        registration = next(IDS)
        self.router.procedures[register.procedure] = (registration, self)
        self.send(message.Registered(register.request, registration))

    def on_call(self, call):
        registration, callee = self.router.procedures.get(call.procedure, (None, None))
        if callee is None:
            error = "wamp.error.no_such_procedure"
            self.send(message.Error(message.Call.MESSAGE_TYPE, call.request, error))
            return
        invocation = next(IDS)
        self.router.calls[invocation] = (self, call.request)
        callee.send(
            message.Invocation(invocation, registration, call.args, call.kwargs, caller=self.number)
        )

    def on_yield(self, result):
        caller, request = self.router.calls.pop(result.request)
        caller.send(message.Result(request, result.args, result.kwargs))

    def on_error(self, error):
        caller, request = self.router.calls.pop(error.request)
        kind = message.Call.MESSAGE_TYPE
        caller.send(message.Error(kind, request, error.error, error.args, error.kwargs))


async def main():
    router = Router()
    factory = WampWebSocketServerFactory(lambda: Session(router), serializers=[JsonSerializer()])
    server = await asyncio.get_running_loop().create_server(factory, "127.0.0.1", 0)
    await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(main())
