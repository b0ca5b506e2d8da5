"""Inferences on simulated devices, which leave outputs as they were."""

import array
import asyncio
import concurrent.futures
import gc
import unittest
import weakref

import kelm
import numpy
from service import Service, eventually

IN, OUT = 36000, 4000


class InferenceTest(unittest.TestCase):
    latency_ms = 0

    def setUp(self) -> None:
        self.service = Service(self.latency_ms)
        self.addCleanup(self.service.remove)
        self.client = self.connect()
        self.graph = self.client.load_graph(b"graph", name="mine")

    def connect(self, **options) -> kelm.Client:
        client = kelm.Client(self.service.socket, **options)
        self.addCleanup(client.close)
        return client


class BufferTest(InferenceTest):
    def test_any_buffer_goes_in_and_out(self) -> None:
        content = bytes(range(250)) * (IN // 250)
        answer = bytes(range(200)) * (OUT // 200)
        numbers = numpy.frombuffer(content, "u4")
        inputs = {
            "bytes": content,
            "bytearray": bytearray(content),
            "memoryview": memoryview(content),
            "array": array.array("I", content),
            "numpy": numbers.reshape(90, 100),
            "big-endian": numbers.view(">u4"),
            "not contiguous": numpy.repeat(numbers, 2)[::2],
        }
        array_out, numpy_out = array.array("d", bytes(OUT)), numpy.zeros((10, 100), ">f4")
        outputs = (None, bytearray(OUT), array_out, numpy_out)
        self.graph.infer(bytes(IN))
        own = self.graph._spare[0]
        for name, data in inputs.items():
            for output in outputs:
                with self.subTest(name, output=type(output)):
                    for in_loop in (False, True):
                        own.input[:] = bytes(IN)
                        own.output[:] = answer
                        if in_loop:
                            result = asyncio.run(self.graph.infer_async(data, output))
                        else:
                            result = self.graph.infer(data, output)
                        self.assertEqual(own.input, content)
                        self.assertEqual(bytes(result), answer)
                        self.assertTrue(output is None or result is output)
        self.assertEqual(self.graph._spare, [own])

    def test_mistakes_are_told_and_leave_all_as_it_was(self) -> None:
        slot = self.graph.pool(1).acquire()
        small = kelm.Pool(8, 8).acquire()
        infer, wait = self.graph.infer, self.graph.infer_async
        invalid = kelm.KelmInvalidArgumentError
        rows = (
            (lambda: infer(b"short"), invalid, "has 5 bytes, and the graph's has 36000"),
            (lambda: infer(bytes(IN), bytearray(3)), invalid, "the output has 3 bytes"),
            (lambda: infer(bytes(IN), bytes(OUT)), invalid, "read-only"),
            (lambda: infer("text"), TypeError, "bytes-like"),
            (lambda: infer(None), TypeError, "bytes-like"),
            (lambda: infer(slot, bytearray(OUT)), invalid, "output of its own"),
            (lambda: infer(small), ValueError, "8 bytes of input"),
            (lambda: infer(slot, deadline=-1), invalid, "deadline of -1"),
            (lambda: infer(slot, deadline=float("nan")), invalid, "deadline of nan"),
            (lambda: asyncio.run(wait(bytes(IN), deadline=0)), invalid, "deadline of 0"),
            (lambda: slot.input_array(object), ValueError, "OBJECT"),
            (lambda: slot.input_array("f4", (99, 99)), ValueError, "reshape"),
            (lambda: infer(slot, priority=2**32), invalid, "priority is 4294967296"),
            (lambda: self.graph.submit(slot, None), TypeError, "function"),
            (lambda: self.graph.submit(b"", print), TypeError, "takes a Slot"),
            (lambda: slot.aux, invalid, "no auxiliary buffer"),
            (lambda: self.client.load_graph("/nowhere"), kelm.KelmSystemError, "/nowhere"),
            (lambda: self.client.load_graph("a\0b"), invalid, "NUL"),
            (lambda: self.client.reset_device(9), kelm.KelmServiceError, "no such device"),
            (lambda: self.client.dispatch(-1), invalid, "negative"),
            (lambda: kelm.Client("/nowhere"), kelm.KelmNotConnectedError, "start kelmdaemon"),
            (lambda: kelm.Client(name="n" * 32), invalid, "31 bytes"),
        )
        for call, kind, words in rows:
            with self.subTest(words), self.assertRaisesRegex(kind, words):
                call()
        self.assertIsNone(infer(slot).error)

    def test_views_keep_the_memory_of_their_slot(self) -> None:
        pool = self.graph.pool(1)
        slot = pool.acquire()
        views = [slot.input[4:], slot.input_array("f4", (2, 3))]
        slot.release()
        while views:
            with self.assertRaises(kelm.KelmBusyError):
                pool.acquire()
            views.pop()[:] = b"x" * (IN - 4) if len(views) == 1 else 1
        again = pool.acquire()
        with self.assertRaisesRegex(kelm.KelmInvalidArgumentError, "slot was released"):
            self.graph.infer(slot)
        array_of_all = again.output_array()
        for thing in (again, slot):
            thing.release()
        self.client.close()
        del pool, again
        gc.collect()
        array_of_all[:] = 7

    def test_status_and_snapshots_tell_of_the_graph(self) -> None:
        self.graph.infer(bytes(IN))
        status = self.client.status()
        self.assertEqual([device.id for device in status.devices], [0, 1])
        self.assertEqual([graph.name for graph in status.graphs], ["mine"])
        with self.client.snapshots() as snapshots:
            snapshot = next(each for each in snapshots if each.graphs[0].inferences == 1)
        self.assertEqual(snapshot.graphs[0].name, "mine")
        self.assertEqual(sum(r.inferences for d in snapshot.devices for r in d.current), 1)
        self.assertEqual(list(snapshots), [])


class LoopTest(InferenceTest):
    latency_ms = 1

    def test_many_tasks_end_once_each(self) -> None:
        pool = self.graph.pool()
        ended = []

        async def lane(slot: kelm.Slot) -> None:
            for _ in range(20):
                ended.append((await self.graph.infer_async(slot)).ticket)

        async def main() -> None:
            await asyncio.gather(
                *(lane(pool.acquire()) for _ in range(16)),
                *(self.graph.infer_async(bytes(IN)) for _ in range(600)),
            )

        asyncio.run(main())
        self.assertEqual(len(set(ended)), 320)
        asyncio.run(main())  # another loop, after the first was closed

    def test_canceling_takes_the_inference_back_and_keeps_the_slot(self) -> None:
        graph = self.client.load_graph(b"other", window=64)
        pool = graph.pool()
        slots = [pool.acquire() for _ in range(200)]
        problems = []

        async def main() -> None:
            asyncio.get_running_loop().set_exception_handler(lambda *end: problems.append(end))
            tasks = [asyncio.ensure_future(graph.infer_async(slot)) for slot in slots]
            await tasks[0]
            for task in tasks[100:]:
                task.cancel()
            await asyncio.sleep(0)  # they have seen it, and the service has not
            with self.assertRaises(kelm.KelmBusyError):
                await graph.infer_async(slots[-1])
            results = await asyncio.gather(*tasks, return_exceptions=True)
            self.assertTrue(all(type(result) is kelm.InferResult for result in results[:100]))
            self.assertTrue(all(type(r) is asyncio.CancelledError for r in results[100:]))
            while kelm._completions.started:
                await asyncio.sleep(0)

        asyncio.run(main())
        self.assertEqual(problems, [])
        with self.client.snapshots() as snapshots:
            done = next(s for s in snapshots if not any(g.waiting_tasks for g in s.graphs))
        self.assertLess(max(row.inferences for row in done.graphs), 200)

    def test_what_callbacks_raise_costs_no_other_end(self) -> None:
        pool = self.graph.pool()
        problems = []

        def fail(slot: kelm.Slot, result: kelm.InferResult) -> None:
            raise LookupError(result.ticket)

        async def main() -> None:
            loop = asyncio.get_running_loop()
            loop.set_exception_handler(lambda _, context: problems.append(context["exception"]))
            await self.graph.infer_async(bytes(IN))
            tickets = [self.graph.submit(pool.acquire(), fail) for _ in range(16)]
            self.graph.infer(bytes(IN))  # behind the others: they are told of together
            while len(problems) < 16:
                await asyncio.sleep(0.001)
            self.assertEqual(sorted(problem.args[0] for problem in problems), tickets)

        asyncio.run(main())

    def test_one_place_at_a_time_runs_the_callbacks(self) -> None:
        slot = self.graph.pool().acquire()
        refused = self.assertRaisesRegex(kelm.KelmInvalidArgumentError, "event loop")
        errors = []

        def elsewhere() -> None:
            for call in (
                self.client.close,
                self.client.dispatch,
                lambda: asyncio.run(self.graph.infer_async(slot)),
            ):
                try:
                    call()
                except kelm.KelmInvalidArgumentError as error:
                    errors.append(str(error))

        async def main() -> None:
            await self.graph.infer_async(slot)
            await asyncio.get_running_loop().run_in_executor(None, elsewhere)
            with refused:
                self.client.dispatch()

        asyncio.run(main())
        self.assertEqual([("loop" in error) for error in errors], [True] * 3, errors)
        ended = []
        self.graph.submit(slot, lambda *end: ended.append(end))  # the loop was closed
        self.assertEqual(self.client.dispatch(10), 1)
        self.assertEqual([end[0] for end in ended], [slot])


class SlowTest(InferenceTest):
    latency_ms = 300

    def infer_elsewhere(self) -> concurrent.futures.Future:
        """Returns once the call has its slot."""
        self.graph.infer(bytes(IN))
        pool = concurrent.futures.ThreadPoolExecutor(1)
        self.addCleanup(pool.shutdown)
        future = pool.submit(self.graph.infer, bytes(IN))
        self.assertTrue(eventually(lambda: not self.graph._spare))
        return future

    def test_a_lost_service_ends_each_task_once(self) -> None:
        changes = []
        client = self.connect(reconnect=True, on_connection=changes.append)
        graph = client.load_graph(b"again")
        slots = [graph.pool().acquire() for _ in range(4)]
        ends = []
        waiting = self.infer_elsewhere()

        async def main() -> None:
            tasks = [asyncio.ensure_future(graph.infer_async(slot)) for slot in slots]
            await asyncio.sleep(0)
            self.service.kill()
            ends.extend(await asyncio.gather(*tasks, return_exceptions=True))

        asyncio.run(main())
        self.assertIsInstance(waiting.exception(), ConnectionError)
        self.assertEqual([type(end) for end in ends], [kelm.KelmConnectionLostError] * 4)
        self.assertIsInstance(ends[0], ConnectionError)
        with self.assertRaises(kelm.KelmNotConnectedError):
            self.graph.infer(bytes(IN))
        self.service.start()
        self.assertTrue(eventually(lambda: client.dispatch(0.01) == 0 and client.connected))
        self.assertEqual(len(graph.infer(bytes(IN))), OUT)
        self.assertTrue(eventually(lambda: client.dispatch(0.01) or changes == [False, True]))

    def test_a_failed_task_keeps_its_slot_for_no_collector(self) -> None:
        gc.disable()
        self.addCleanup(gc.enable)

        async def main() -> object:
            slot = self.graph.pool().acquire()
            kept = weakref.ref(slot)
            try:
                await self.graph.infer_async(slot, deadline=0.05)
            except kelm.KelmTimeoutError:
                del slot
            await asyncio.sleep(0)
            return kept()

        self.assertIsNone(asyncio.run(main()))


if __name__ == "__main__":
    unittest.main()
