"""Writes the SQL session run by the sqlite3 command-line shell: a schema,
ROWS single-row inserts in one transaction, indexes, range queries and a
join. Deterministic. Usage: python3 sqlite_gen.py ROWS > session.sql"""
import sys

rows = int(sys.argv[1]) if len(sys.argv) > 1 else 200000
out = sys.stdout
out.write("PRAGMA journal_mode=WAL;\nPRAGMA synchronous=OFF;\n"
          "CREATE TABLE customer(id INTEGER PRIMARY KEY, name TEXT, region INTEGER);\n"
          "CREATE TABLE orders(id INTEGER PRIMARY KEY, customer INTEGER, amount REAL, day INTEGER, note TEXT);\n"
          "BEGIN;\n")
customers = max(rows // 50, 10)
for c in range(customers):
    out.write("INSERT INTO customer VALUES(%d,'customer %d',%d);\n" % (c, c, c % 17))
x = 777
for i in range(rows):
    x = (x * 1103515245 + 12345) & 0x7FFFFFFF
    out.write("INSERT INTO orders(customer,amount,day,note) VALUES(%d,%d.%02d,%d,'%s');\n"
              % (x % customers, (x >> 8) % 10000, x % 100, (x >> 4) % 3650, "n%x" % (x % 65521)))
out.write("COMMIT;\n"
          "CREATE INDEX orders_day ON orders(day);\n"
          "CREATE INDEX orders_customer ON orders(customer, amount);\n"
          "CREATE INDEX orders_note ON orders(note);\n")
for d in range(0, 3650, 365):
    out.write("SELECT %d, count(*), round(sum(amount),2) FROM orders WHERE day BETWEEN %d AND %d;\n" % (d, d, d + 30))
for c in range(0, customers, max(customers // 10, 1)):
    out.write("SELECT %d, count(*), round(max(amount),2) FROM orders WHERE customer=%d AND amount > 5000;\n" % (c, c))
out.write("SELECT c.region, count(*), round(sum(o.amount),2) FROM orders o JOIN customer c ON c.id=o.customer"
          " WHERE o.day < 1000 GROUP BY c.region ORDER BY c.region;\n"
          "SELECT note, count(*) AS k FROM orders GROUP BY note ORDER BY k DESC, note LIMIT 5;\n"
          "UPDATE orders SET amount = amount * 1.1 WHERE day % 7 = 0;\n"
          "DELETE FROM orders WHERE day % 11 = 0;\n"
          "SELECT count(*), round(sum(amount),2) FROM orders;\n")
