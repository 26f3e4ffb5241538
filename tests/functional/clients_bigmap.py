"""A map of 100,000 entries, and values of awkward sizes."""

import nistest
from nistest import run
from ypclient import SYSTEM_ERR, RpcError

COUNT = 100000


class BigMap(nistest.NisTest):
    log_level = "info"

    def test_hundred_thousand_entries(self):
        entries = {"key%06d" % i: "value %d of %s" % (i * 7919, "x" * (i % 40))
                   for i in range(COUNT)}
        self.directory.fill("big.map", entries)
        self.start_system()
        self.assert_map("big.map", entries)

        result = run("ypcat", "-h", "127.0.0.1", "-d", nistest.DOMAIN, "-k", "big.map", check=True)
        self.assertEqual(sorted(result.stdout.decode().splitlines()),
                         sorted("%s %s" % entry for entry in entries.items()))

        with self.client("udp") as client:
            for i in range(0, COUNT, 97):
                key = "key%06d" % i
                self.assertEqual(client.match("big.map", key), (1, entries[key].encode()))
            seen, (status, key, value) = {}, client.first("big.map")
            while status == 1 and len(seen) < 3000:
                self.assertNotIn(key, seen)
                seen[key] = value
                status, key, value = client.next("big.map", key)
            self.assertEqual(len(seen), 3000)
            self.assertEqual(seen, {key: entries[key.decode()].encode() for key in seen})

    def test_values_that_do_not_fit_into_a_datagram(self):
        entries = {"small": "s", "fits": "f" * 8000, "large": "l" * 20000, "wide": "w" * 60000}
        self.directory.fill("sizes", entries)
        self.start_system()
        self.assert_map("sizes", entries)
        with self.client("tcp") as client:
            for key, value in entries.items():
                self.assertEqual(client.match("sizes", key), (1, value.encode()))
        with self.client("udp") as client:
            self.assertEqual(client.match("sizes", "fits"), (1, b"f" * 8000))
            for key in ("large", "wide"):
                with self.assertRaises(RpcError) as caught:
                    client.match("sizes", key)
                self.assertEqual(caught.exception.accept_stat, SYSTEM_ERR)
            self.assertEqual(client.match("sizes", "small"), (1, b"s"))


if __name__ == "__main__":
    nistest.main()
